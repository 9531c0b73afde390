#include "Companion/Sidecar/ConnectRequest.h"

#include <algorithm>
#include <optional>

namespace ostravel::companion {
namespace {

constexpr std::string_view kAppIdField = "x-ostravel-app-id";
constexpr std::string_view kFlowIdField = "x-ostravel-flow-id";
constexpr std::string_view kLineEnd = "\r\n";

struct Field {
  std::string_view name;
  std::string_view value;
};

// RFC 9110, section 5.6.2.
bool isTokenCharacter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') ||
         (character != '\0' &&
          std::string_view("!#$%&'*+-.^_`|~").find(character) != std::string_view::npos);
}

bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

bool isVisible(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char character) {
    return character > 0x20 && character < 0x7F;
  });
}

bool isSupportedVersion(std::string_view version) {
  return version == "HTTP/1.1" || version == "HTTP/1.0";
}

bool equalsIgnoringCase(std::string_view text, std::string_view lowerCase) {
  return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(),
                    [](char left, char right) {
                      return (left >= 'A' && left <= 'Z' ? left - 'A' + 'a' : left) == right;
                    });
}

std::string_view withoutOuterBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string_view takeLine(std::string_view& text) {
  const std::size_t end = text.find(kLineEnd);
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + kLineEnd.size());
  return line;
}

std::variant<HostPort, HTTPStatus> parseRequestLine(std::string_view line) {
  const std::size_t methodEnd = line.find(' ');
  const std::size_t targetEnd = line.rfind(' ');
  if (methodEnd == std::string_view::npos || methodEnd == targetEnd) {
    return HTTPStatus::badRequest;
  }
  const std::string_view method = line.substr(0, methodEnd);
  const std::string_view target = line.substr(methodEnd + 1, targetEnd - methodEnd - 1);
  if (!isToken(method) || !isVisible(target) || !isSupportedVersion(line.substr(targetEnd + 1))) {
    return HTTPStatus::badRequest;
  }
  if (method != "CONNECT") {
    return HTTPStatus::methodNotAllowed;
  }
  std::optional<HostPort> hostPort = parseHostPort(target);
  if (!hostPort || hostPort->port == 0) {
    return HTTPStatus::badRequest;
  }
  return *std::move(hostPort);
}

std::optional<Field> parseField(std::string_view line) {
  constexpr std::string_view kForbidden("\r\0", 2);
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos || !isToken(line.substr(0, colon)) ||
      line.find_first_of(kForbidden) != std::string_view::npos) {
    return std::nullopt;
  }
  return Field{line.substr(0, colon), withoutOuterBlanks(line.substr(colon + 1))};
}

}  // namespace

std::variant<ConnectRequest, HTTPStatus> parseConnectRequest(std::string_view header) {
  std::variant<HostPort, HTTPStatus> target = parseRequestLine(takeLine(header));
  if (const HTTPStatus* refusal = std::get_if<HTTPStatus>(&target)) {
    return *refusal;
  }
  ConnectRequest request{std::get<HostPort>(std::move(target)), {}, {}};
  for (std::string_view line = takeLine(header); !line.empty(); line = takeLine(header)) {
    const std::optional<Field> field = parseField(line);
    if (!field) {
      return HTTPStatus::badRequest;
    }
    if (request.appId.empty() && equalsIgnoringCase(field->name, kAppIdField)) {
      request.appId = field->value;
    } else if (request.flowId.empty() && equalsIgnoringCase(field->name, kFlowIdField)) {
      request.flowId = field->value;
    }
  }
  return request;
}

}  // namespace ostravel::companion
