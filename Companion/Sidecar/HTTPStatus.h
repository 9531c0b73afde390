#pragma once

#include <string>
#include <string_view>

namespace ostravel::companion {

// The status codes with which the sidecar refuses a tunnel (RFC 9110, section 15; RFC 6585 for
// 431).
enum class HTTPStatus {
  badRequest = 400,
  methodNotAllowed = 405,
  requestTimeout = 408,
  headerTooLarge = 431,
  badGateway = 502,
  gatewayTimeout = 504,
};

std::string_view reasonPhrase(HTTPStatus status);

// The complete answer that refuses a request and announces the end of the connection.
std::string refusalAnswer(HTTPStatus status);

}  // namespace ostravel::companion
