#include "Tests/Platform/Linux/Relay/Support/RelayNetwork.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>

#include "Base/FileDescriptor.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform::test {

namespace {

// Prepared once in each test program, before the first test.
class RelayNetwork final : public ::testing::Environment {
  void SetUp() override {
    testing::outputOf("ip address add 10.0.0.2/32 dev lo");
    testing::outputOf("ip address add 2001:db8::2/128 dev lo nodad");
    waitUntilReachable(kApplicationIPv6);
    // Event loops must not need others to ignore it.
    std::signal(SIGPIPE, SIG_DFL);
  }
};

// Google Test owns it.
[[maybe_unused]] const auto* const network =
    ::testing::AddGlobalTestEnvironment(new RelayNetwork());

}  // namespace

void waitUntilReachable(const char* ipv6Address) {
  using namespace std::chrono_literals;
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  ::inet_pton(AF_INET6, ipv6Address, &address.sin6_addr);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  const FileDescriptor socket(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  // The address is now bound to a port.
  ASSERT_EQ(::bind(socket.get(), generic, size), 0) << ipv6Address;
  ASSERT_EQ(::getsockname(socket.get(), generic, &size), 0);
  const auto limit = std::chrono::steady_clock::now() + 20s;
  bool isReachable = false;
  while (!isReachable && std::chrono::steady_clock::now() < limit) {
    ::sendto(socket.get(), "?", 1, MSG_DONTWAIT, generic, size);
    pollfd arrived{socket.get(), POLLIN, 0};
    isReachable = ::poll(&arrived, 1, 10) == 1;
  }
  EXPECT_TRUE(isReachable) << ipv6Address;
}

}  // namespace ostravel::linuxplatform::test
