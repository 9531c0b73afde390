#include "Companion/Shared/HostPort.h"

#include <algorithm>
#include <asio/ip/address.hpp>

#include "Base/ParseNumber.h"

namespace ostravel::companion {
namespace {

// RFC 1035, section 2.3.4.
constexpr std::size_t kLongestName = 255;

bool isNameCharacter(char character) {
  // Not std::isalnum: the characters of a name do not depend on a locale.
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || character == '-' || character == '.' ||
         character == '_';
}

bool isName(std::string_view host) {
  return !host.empty() && host.size() <= kLongestName &&
         std::all_of(host.begin(), host.end(), isNameCharacter);
}

bool isIPv6Address(std::string_view host) {
  asio::error_code error;
  asio::ip::make_address_v6(host, error);
  return !error;
}

}  // namespace

std::optional<HostPort> parseHostPort(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  const auto port = parseNumber<std::uint16_t>(text.substr(colon + 1));
  std::string_view host = text.substr(0, colon);
  if (!port) {
    return std::nullopt;
  }
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
    if (!isIPv6Address(host)) {
      return std::nullopt;
    }
  } else if (!isName(host)) {
    return std::nullopt;
  }
  return HostPort{std::string(host), *port};
}

std::optional<asio::ip::tcp::endpoint> literalEndpoint(const HostPort& hostPort) {
  asio::error_code error;
  const asio::ip::address address = asio::ip::make_address(hostPort.host, error);
  return error ? std::nullopt : std::optional(asio::ip::tcp::endpoint(address, hostPort.port));
}

std::string toString(const HostPort& hostPort) {
  const bool bracketed = hostPort.host.find(':') != std::string::npos;
  const std::string host = bracketed ? "[" + hostPort.host + "]" : hostPort.host;
  return host + ":" + std::to_string(hostPort.port);
}

std::string toString(const asio::ip::tcp::endpoint& endpoint) {
  return toString(HostPort{endpoint.address().to_string(), endpoint.port()});
}

}  // namespace ostravel::companion
