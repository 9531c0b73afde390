#include "Platform/Linux/Kernel/FlowTuple.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstddef>

namespace ostravel::linuxplatform {

std::optional<SocketEndpoint> SocketEndpoint::atAddress(const std::string& literal) {
  SocketEndpoint endpoint;
  if (::inet_pton(AF_INET, literal.c_str(), endpoint.address.data()) == 1) {
    return endpoint;
  }
  endpoint.family = AddressFamily::ipv6;
  if (::inet_pton(AF_INET6, literal.c_str(), endpoint.address.data()) == 1) {
    return endpoint;
  }
  return std::nullopt;
}

namespace {

// Several times for each flow: inet_ntop(3) takes ten times as long.
std::string dottedText(const SocketEndpoint& endpoint) {
  constexpr std::size_t kParts = 4;
  std::array<char, INET_ADDRSTRLEN> text{};
  char* end = text.data();
  for (std::size_t part = 0; part < kParts; ++part) {
    if (part > 0) {
      *end++ = '.';
    }
    end = std::to_chars(end, text.data() + text.size(), endpoint.address[part]).ptr;
  }
  return {text.data(), end};
}

}  // namespace

std::string SocketEndpoint::addressText() const {
  if (family == AddressFamily::ipv4) {
    return dottedText(*this);
  }
  std::array<char, INET6_ADDRSTRLEN> text{};
  ::inet_ntop(AF_INET6, address.data(), text.data(), text.size());
  return text.data();
}

}  // namespace ostravel::linuxplatform
