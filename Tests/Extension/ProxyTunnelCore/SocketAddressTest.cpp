#include "Extension/ProxyTunnelCore/SocketAddress.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>
#include <vector>

#include "Tests/Extension/Support/Bytes.h"

namespace ostravel {
namespace {

using platform::SocketAddressLayout;
using enum platform::SocketAddressLayout;

using test::bytesOf;

TEST(IPv4SocketAddress, HasALengthByteOfZeroAndAFamilyByteOnDarwin) {
  EXPECT_EQ(makeIPv4SocketAddress(darwinABI, "127.0.0.1", 8080),
            bytesOf({0, AF_INET, 0x1F, 0x90, 127, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(IPv4SocketAddress, IsTheSystemsOwnOnLinux) {
  sockaddr_in expected{};
  expected.sin_family = AF_INET;
  expected.sin_port = htons(8080);
  expected.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

  const auto address = makeIPv4SocketAddress(linuxABI, "127.0.0.1", 8080);

  ASSERT_TRUE(address);
  ASSERT_EQ(address->size(), sizeof expected);
  EXPECT_EQ(std::memcmp(address->data(), &expected, sizeof expected), 0);
}

TEST(IPv4SocketAddress, CarriesTheHighestAddressAndPort) {
  EXPECT_EQ(makeIPv4SocketAddress(darwinABI, "255.255.255.255", 65535),
            bytesOf({0, AF_INET, 255, 255, 255, 255, 255, 255, 0, 0, 0, 0, 0, 0, 0, 0}));
}

class NotAnIPv4Literal : public testing::TestWithParam<std::string> {};

TEST_P(NotAnIPv4Literal, GivesNoAddress) {
  EXPECT_EQ(makeIPv4SocketAddress(linuxABI, GetParam(), 8080), std::nullopt);
  EXPECT_EQ(makeIPv4SocketAddress(darwinABI, GetParam(), 8080), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Hosts, NotAnIPv4Literal,
                         testing::Values("localhost", "::1", "", "127.0.0", "127.0.0.256",
                                         " 127.0.0.1", "127.0.0.1 ",
                                         std::string("127.0.0.1\0x", 11)));

TEST(LocalSocketAddress, HasALengthByteOfZeroAndAFamilyByteOnDarwin) {
  EXPECT_EQ(makeLocalSocketAddress(darwinABI, "/a"), bytesOf({0, AF_UNIX, '/', 'a'}));
}

TEST(LocalSocketAddress, IsTheSystemsOwnOnLinux) {
  sockaddr_un expected{};
  expected.sun_family = AF_UNIX;
  std::strcpy(expected.sun_path, "/tmp/m.sock");

  const auto address = makeLocalSocketAddress(linuxABI, "/tmp/m.sock");

  ASSERT_TRUE(address);
  ASSERT_EQ(address->size(), offsetof(sockaddr_un, sun_path) + std::strlen("/tmp/m.sock"));
  EXPECT_EQ(std::memcmp(address->data(), &expected, address->size()), 0);
}

class LocalSocketPathLength : public testing::TestWithParam<SocketAddressLayout> {};

TEST_P(LocalSocketPathLength, MayBe103Bytes) {
  const auto address = makeLocalSocketAddress(GetParam(), std::string(103, 'p'));

  ASSERT_TRUE(address);
  EXPECT_EQ(address->size(), 105U);
}

TEST_P(LocalSocketPathLength, MayNotBe104Bytes) {
  EXPECT_EQ(makeLocalSocketAddress(GetParam(), std::string(104, 'p')), std::nullopt);
}

TEST_P(LocalSocketPathLength, IsCountedInBytesOfUTF8) {
  std::string path;
  for (int letter = 0; letter < 52; ++letter) {
    path += "\u00E4";
  }

  EXPECT_EQ(makeLocalSocketAddress(GetParam(), path), std::nullopt);
  path.pop_back();
  path.back() = 'p';
  EXPECT_EQ(makeLocalSocketAddress(GetParam(), path).value_or(std::vector<std::byte>()).size(),
            105U);
}

INSTANTIATE_TEST_SUITE_P(Layouts, LocalSocketPathLength, testing::Values(linuxABI, darwinABI));

}  // namespace
}  // namespace ostravel
