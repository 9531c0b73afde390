#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "Companion/Shared/HostPort.h"
#include "Companion/Sidecar/HTTPStatus.h"

namespace ostravel::companion {

// The parts of a CONNECT request that the sidecar uses. The two identifiers are as the client sent
// them, empty if absent; they only appear in the log and may contain any byte but CR, LF and NUL.
struct ConnectRequest {
  HostPort target;
  std::string appId;
  std::string flowId;
};

// Parses a request header that ends in an empty line (RFC 9112, sections 3 and 5). Refuses
// malformed requests and targets other than host:port with badRequest, and every method but CONNECT
// with methodNotAllowed.
std::variant<ConnectRequest, HTTPStatus> parseConnectRequest(std::string_view header);

}  // namespace ostravel::companion
