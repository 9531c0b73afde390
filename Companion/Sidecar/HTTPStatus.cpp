#include "Companion/Sidecar/HTTPStatus.h"

namespace ostravel::companion {

std::string_view reasonPhrase(HTTPStatus status) {
  switch (status) {
    case HTTPStatus::badRequest:
      return "Bad Request";
    case HTTPStatus::methodNotAllowed:
      return "Method Not Allowed";
    case HTTPStatus::requestTimeout:
      return "Request Timeout";
    case HTTPStatus::headerTooLarge:
      return "Request Header Fields Too Large";
    case HTTPStatus::badGateway:
      return "Bad Gateway";
    case HTTPStatus::gatewayTimeout:
      return "Gateway Timeout";
  }
  return "Unknown";
}

std::string refusalAnswer(HTTPStatus status) {
  std::string answer = "HTTP/1.1 " + std::to_string(static_cast<int>(status)) + " ";
  answer += reasonPhrase(status);
  answer += "\r\n";
  if (status == HTTPStatus::methodNotAllowed) {
    answer += "Allow: CONNECT\r\n";
  }
  answer += "Content-Length: 0\r\nConnection: close\r\n\r\n";
  return answer;
}

}  // namespace ostravel::companion
