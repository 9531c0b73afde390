#include "Tests/Platform/Linux/Relay/Support/PrivateNetwork.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform::test {

void enterPrivateNetwork() {
  if (::unshare(CLONE_NEWNET) != 0) {
    std::perror("a private network namespace is needed: unshare");
    std::exit(EXIT_FAILURE);
  }
  runCommand("ip link set lo up");
  runCommand("ip address add 10.0.0.2/32 dev lo");
  runCommand("ip address add 2001:db8::2/128 dev lo nodad");
  waitUntilReachable(kApplicationIPv6);
}

void waitUntilReachable(const char* ipv6Address) {
  using namespace std::chrono_literals;
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  ::inet_pton(AF_INET6, ipv6Address, &address.sin6_addr);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  const FileDescriptor socket(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  // The address is now bound to a port.
  if (::bind(socket.get(), generic, size) != 0 ||
      ::getsockname(socket.get(), generic, &size) != 0) {
    std::perror(ipv6Address);
    std::exit(EXIT_FAILURE);
  }
  const auto limit = std::chrono::steady_clock::now() + 20s;
  while (std::chrono::steady_clock::now() < limit) {
    ::sendto(socket.get(), "?", 1, MSG_DONTWAIT, generic, size);
    pollfd arrived{socket.get(), POLLIN, 0};
    if (::poll(&arrived, 1, 10) == 1) {
      return;
    }
  }
  std::fprintf(stderr, "%s does not become reachable\n", ipv6Address);
  std::exit(EXIT_FAILURE);
}

void runCommand(const char* command) {
  if (std::system(command) != 0) {
    std::fprintf(stderr, "this command is needed and failed: %s\n", command);
    std::exit(EXIT_FAILURE);
  }
}

}  // namespace ostravel::linuxplatform::test
