#include "Platform/Linux/ConntrackEntries.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>

#include "Tests/Linux/Interception/Support/NetworkFixture.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using testing::Connecting;
using testing::Listener;
using testing::outputOf;

constexpr auto kGenerous = 5s;

void trackConnections() {
  outputOf(
      "nft 'add table inet foreign; add chain inet foreign out "
      "{ type filter hook output priority filter; }; add rule inet foreign out ct state new "
      "counter'");
}

FlowTuple tupleOf(const Connecting& application, AddressFamily family) {
  FlowTuple tuple;
  tuple.source.family = family;
  tuple.source.address[family == AddressFamily::ipv4 ? 3 : 15] = 1;
  if (family == AddressFamily::ipv4) {
    tuple.source.address[0] = 127;
  }
  tuple.destination = tuple.source;
  tuple.source.port = application.sourcePort();
  tuple.destination.port = 8000;
  return tuple;
}

TEST(ConntrackEntriesTest, MakesTheKernelForgetAConnection) {
  trackConnections();
  ConntrackEntries entries;
  for (const auto family : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    const char* const address = family == AddressFamily::ipv4 ? "127.0.0.1" : "::1";
    Listener origin(address, 8000);
    const Connecting application(address, 8000);
    ASSERT_EQ(application.result(kGenerous), 0);
    EXPECT_EQ(entries.remove(tupleOf(application, family)), 0);
    EXPECT_EQ(entries.remove(tupleOf(application, family)), ENOENT);
  }
}

TEST(ConntrackEntriesTest, SaysThatThereIsNone) {
  trackConnections();
  EXPECT_EQ(ConntrackEntries().remove(FlowTuple()), ENOENT);
}

}  // namespace
}  // namespace ostravel::linuxplatform
