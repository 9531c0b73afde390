#include "Companion/Sidecar/HttpStatus.h"

namespace ostravel::companion {

std::string_view reasonPhrase(HttpStatus status) {
  switch (status) {
    case HttpStatus::kBadRequest:
      return "Bad Request";
    case HttpStatus::kMethodNotAllowed:
      return "Method Not Allowed";
    case HttpStatus::kRequestTimeout:
      return "Request Timeout";
    case HttpStatus::kHeaderTooLarge:
      return "Request Header Fields Too Large";
    case HttpStatus::kBadGateway:
      return "Bad Gateway";
    case HttpStatus::kGatewayTimeout:
      return "Gateway Timeout";
  }
  return "Unknown";
}

std::string refusalAnswer(HttpStatus status) {
  std::string answer = "HTTP/1.1 " + std::to_string(static_cast<int>(status)) + " ";
  answer += reasonPhrase(status);
  answer += "\r\n";
  if (status == HttpStatus::kMethodNotAllowed) {
    answer += "Allow: CONNECT\r\n";
  }
  answer += "Content-Length: 0\r\nConnection: close\r\n\r\n";
  return answer;
}

}  // namespace ostravel::companion
