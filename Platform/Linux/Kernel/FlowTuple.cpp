#include "Platform/Linux/Kernel/FlowTuple.h"

#include <arpa/inet.h>

namespace ostravel::linuxplatform {

std::string SocketEndpoint::addressText() const {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const int systemFamily = family == AddressFamily::ipv4 ? AF_INET : AF_INET6;
  ::inet_ntop(systemFamily, address.data(), text.data(), text.size());
  return text.data();
}

}  // namespace ostravel::linuxplatform
