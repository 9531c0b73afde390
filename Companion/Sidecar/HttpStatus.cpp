#include "Companion/Sidecar/HttpStatus.h"

namespace ostravel::companion {

std::string_view reasonPhrase(HttpStatus status) {
  switch (status) {
    case HttpStatus::badRequest:
      return "Bad Request";
    case HttpStatus::methodNotAllowed:
      return "Method Not Allowed";
    case HttpStatus::requestTimeout:
      return "Request Timeout";
    case HttpStatus::headerTooLarge:
      return "Request Header Fields Too Large";
    case HttpStatus::badGateway:
      return "Bad Gateway";
    case HttpStatus::gatewayTimeout:
      return "Gateway Timeout";
  }
  return "Unknown";
}

std::string refusalAnswer(HttpStatus status) {
  std::string answer = "HTTP/1.1 " + std::to_string(static_cast<int>(status)) + " ";
  answer += reasonPhrase(status);
  answer += "\r\n";
  if (status == HttpStatus::methodNotAllowed) {
    answer += "Allow: CONNECT\r\n";
  }
  answer += "Content-Length: 0\r\nConnection: close\r\n\r\n";
  return answer;
}

}  // namespace ostravel::companion
