#include "Companion/Control/ExplainSubject.h"

#include <arpa/inet.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string_view>

#include "Base/ParseNumber.h"

namespace ostravel::companion {
namespace {

constexpr std::string_view kAfterScheme = "://";
constexpr std::size_t kLongestName = 253;
constexpr std::size_t kLongestLabel = 63;

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

bool isAddress(std::string_view host) {
  // Without the interface of a link-local address.
  const std::string address(host.substr(0, host.find('%')));
  in6_addr result{};
  return ::inet_pton(AF_INET6, address.c_str(), &result) == 1 ||
         (address == host && ::inet_pton(AF_INET, address.c_str(), &result) == 1);
}

bool isLabel(std::string_view label) {
  return !label.empty() && label.size() <= kLongestLabel &&
         std::all_of(label.begin(), label.end(), [](char character) {
           return isDigit(character) || (character >= 'a' && character <= 'z') ||
                  (character >= 'A' && character <= 'Z') || character == '-' || character == '_';
         });
}

// RFC 1123, section 2.1, and underscores, which occur. The last label is not a number, so that a
// mistyped address is no name.
bool isName(std::string_view host) {
  if (host.ends_with('.')) {
    host.remove_suffix(1);
  }
  if (host.empty() || host.size() > kLongestName) {
    return false;
  }
  while (true) {
    const std::size_t dot = host.find('.');
    const std::string_view label = host.substr(0, dot);
    if (!isLabel(label)) {
      return false;
    }
    if (dot == std::string_view::npos) {
      return !std::all_of(label.begin(), label.end(), isDigit);
    }
    host.remove_prefix(dot + 1);
  }
}

bool addDestination(json_t* request, std::string_view text) {
  std::string_view host = text;
  std::optional<unsigned> port;
  const auto colon = text.rfind(':');
  const bool isBracketed = text.starts_with('[');
  const bool hasPort = colon != std::string_view::npos &&
                       (isBracketed ? text[colon - 1] == ']' : text.find(':') == colon);
  if (hasPort) {
    port = parseNumber<unsigned>(text.substr(colon + 1));
    host = text.substr(0, colon);
  }
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  }
  if (!isAddress(host) && !isName(host)) {
    return false;
  }
  json_object_set_new(request, "host", json_stringn(host.data(), host.size()));
  if (hasPort) {
    json_object_set_new(request, "port", json_integer(port.value_or(0)));
  }
  return true;
}

// RFC 3986, as people copy it from a browser.
bool addDestinationOfURL(json_t* request, std::string_view url, std::size_t schemeSize) {
  const std::string_view scheme = url.substr(0, schemeSize);
  std::string_view authority = url.substr(schemeSize + kAfterScheme.size());
  authority = authority.substr(0, authority.find_first_of("/?#"));
  // Without a user this begins at npos + 1, which is 0.
  authority = authority.substr(authority.rfind('@') + 1);
  // Replaced by the port in the URL, if there is one.
  json_object_set_new(request, "port", json_integer(scheme == "http" ? 80 : 443));
  return addDestination(request, authority);
}

}  // namespace

bool addExplainSubject(json_t* request, const std::string& text) {
  if (const auto schemeSize = text.find(kAfterScheme); schemeSize != std::string::npos) {
    return addDestinationOfURL(request, text, schemeSize);
  }
  if (const auto pid = parseNumber<int>(text)) {
    return json_object_set_new(request, "pid", json_integer(*pid)) == 0;
  }
  if (text.find('/') != std::string::npos) {
    const std::string path = std::filesystem::absolute(text).lexically_normal();
    // Fails if it is not UTF-8.
    return json_object_set_new(request, "path", json_stringn(path.data(), path.size())) == 0;
  }
  return addDestination(request, text);
}

}  // namespace ostravel::companion
