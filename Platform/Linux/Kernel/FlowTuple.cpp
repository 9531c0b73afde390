#include "Platform/Linux/Kernel/FlowTuple.h"

#include <arpa/inet.h>

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

std::string SocketEndpoint::addressText() const {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const int systemFamily = family == AddressFamily::ipv4 ? AF_INET : AF_INET6;
  ::inet_ntop(systemFamily, address.data(), text.data(), text.size());
  return text.data();
}

}  // namespace ostravel::linuxplatform
