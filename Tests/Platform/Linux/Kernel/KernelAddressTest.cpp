#include "Platform/Linux/Kernel/KernelAddress.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/un.h>

namespace ostravel::linuxplatform {
namespace {

constexpr SocketEndpoint kIPv4{AddressFamily::ipv4, {192, 0, 2, 10}, 443};
constexpr SocketEndpoint kIPv6{
    AddressFamily::ipv6, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}, 8080};

TEST(KernelAddressTest, KeepsAnEndpoint) {
  const KernelAddress ipv4(kIPv4);
  EXPECT_EQ(ipv4.get()->sa_family, AF_INET);
  EXPECT_EQ(ipv4.size, sizeof(sockaddr_in));
  EXPECT_EQ(ipv4.endpoint(), kIPv4);
  const KernelAddress ipv6(kIPv6);
  EXPECT_EQ(ipv6.get()->sa_family, AF_INET6);
  EXPECT_EQ(ipv6.size, sizeof(sockaddr_in6));
  EXPECT_EQ(ipv6.endpoint(), kIPv6);
}

TEST(KernelAddressTest, HasRoomForAnyAddress) {
  const KernelAddress address;
  EXPECT_GE(address.size, sizeof(sockaddr_un));
  EXPECT_EQ(address.endpoint(), std::nullopt);
}

TEST(KernelAddressTest, AnotherFamilyIsNoEndpoint) {
  KernelAddress address;
  address.get()->sa_family = AF_UNIX;
  EXPECT_EQ(address.endpoint(), std::nullopt);
}

TEST(KernelAddressTest, ReadsAddressLiteralsWithAPort) {
  EXPECT_EQ(parseAddressLiteral({"192.0.2.10", "443"}), kIPv4);
  EXPECT_EQ(parseAddressLiteral({"2001:db8::2", "8080"}), kIPv6);
  EXPECT_EQ(parseAddressLiteral({"127.0.0.1", "65535"})->port, 65535);
}

TEST(KernelAddressTest, NamesAndOtherPortsAreNotRead) {
  for (const char* const port : {"", "0", "65536", "-1", "+1", " 1", "80 ", "http"}) {
    EXPECT_EQ(parseAddressLiteral({"127.0.0.1", port}), std::nullopt) << port;
  }
  EXPECT_EQ(parseAddressLiteral({"localhost", "80"}), std::nullopt);
}

}  // namespace
}  // namespace ostravel::linuxplatform
