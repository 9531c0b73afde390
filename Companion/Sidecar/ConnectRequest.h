#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "Companion/Shared/HostPort.h"
#include "Companion/Sidecar/HTTPStatus.h"

namespace ostravel::companion {

// What the sidecar takes from a CONNECT request. The two identifiers are as the client sent them,
// empty when absent: they are for the log alone and may hold any byte but CR, LF and NUL.
struct ConnectRequest {
  HostPort target;
  std::string appId;
  std::string flowId;
};

// Reads a request header that ends in an empty line (RFC 9112, sections 3 and 5). Refuses with
// badRequest what is no well-formed request or names no target of the form host:port, and with
// methodNotAllowed every method but CONNECT.
std::variant<ConnectRequest, HTTPStatus> parseConnectRequest(std::string_view header);

}  // namespace ostravel::companion
