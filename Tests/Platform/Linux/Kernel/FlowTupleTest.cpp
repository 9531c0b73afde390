#include "Platform/Linux/Kernel/FlowTuple.h"

#include <gtest/gtest.h>

namespace ostravel::linuxplatform {
namespace {

TEST(FlowTupleTest, ReadsAndWritesAddressLiterals) {
  const auto ipv4 = SocketEndpoint::atAddress("192.0.2.10");
  EXPECT_EQ(ipv4, (SocketEndpoint{AddressFamily::ipv4, {192, 0, 2, 10}, 0}));
  EXPECT_EQ(ipv4->addressText(), "192.0.2.10");
  const auto ipv6 = SocketEndpoint::atAddress("2001:0DB8:0::0:2");
  EXPECT_EQ(ipv6, (SocketEndpoint{AddressFamily::ipv6,
                                  {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}}));
  EXPECT_EQ(ipv6->addressText(), "2001:db8::2");
}

TEST(FlowTupleTest, NothingElseIsAnAddress) {
  for (const char* const text : {"", "localhost", "127.1", "127.0.0.1 ", "0x7f.0.0.1", "[::1]",
                                 "fe80::1%lo", "1:2:3:4:5:6:7:8:9"}) {
    EXPECT_EQ(SocketEndpoint::atAddress(text), std::nullopt) << text;
  }
}

TEST(FlowTupleTest, HashesDifferForPortAndAddress) {
  const SocketEndpointHash hash;
  const SocketEndpoint one{AddressFamily::ipv4, {127, 0, 0, 1}, 80};
  EXPECT_EQ(hash(one), hash({AddressFamily::ipv4, {127, 0, 0, 1}, 80}));
  EXPECT_NE(hash(one), hash({AddressFamily::ipv4, {127, 0, 0, 1}, 443}));
  EXPECT_NE(hash(one), hash({AddressFamily::ipv4, {127, 0, 0, 2}, 80}));
}

}  // namespace
}  // namespace ostravel::linuxplatform
