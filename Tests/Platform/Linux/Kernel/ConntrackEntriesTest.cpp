#include "Platform/Linux/Kernel/ConntrackEntries.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Tests/Platform/Linux/Support/AlteredAnswers.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using testing::Connecting;
using testing::outputOf;
using testing::TestListener;

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
  tuple.source.port = application.localPort();
  tuple.destination.port = 8000;
  return tuple;
}

std::int64_t codeOf(const platform::OptionalError& error) {
  return error ? error->code : 0;
}

TEST(ConntrackEntriesTest, RemovesAConnection) {
  trackConnections();
  ConntrackEntries entries;
  for (const auto family : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    const char* const address = family == AddressFamily::ipv4 ? "127.0.0.1" : "::1";
    TestListener origin(address, 8000);
    const Connecting application(address, 8000);
    ASSERT_EQ(application.connectResult(kGenerous), 0);
    EXPECT_EQ(entries.remove(tupleOf(application, family)), std::nullopt);
    EXPECT_EQ(codeOf(entries.remove(tupleOf(application, family))), ENOENT);
  }
}

TEST(ConntrackEntriesTest, ReportsAMissingEntry) {
  trackConnections();
  EXPECT_EQ(codeOf(ConntrackEntries().allowReopening(FlowTuple())), ENOENT);
  EXPECT_EQ(codeOf(ConntrackEntries().remove(FlowTuple())), ENOENT);
}

TEST(ConntrackEntriesTest, CountsTheEntriesOfItsNamespace) {
  trackConnections();
  ConntrackEntries entries;
  const auto before = entries.usage();
  ASSERT_TRUE(before);
  EXPECT_EQ(before->count, 0U);
  std::uint32_t limit = 0;
  std::ifstream("/proc/sys/net/netfilter/nf_conntrack_max") >> limit;
  EXPECT_EQ(before->limit, limit);
  TestListener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  ASSERT_EQ(application.connectResult(kGenerous), 0);
  EXPECT_EQ(entries.usage()->count, 1U);
}

TEST(ConntrackEntriesTest, ALateAnswerIsNotThatOfTheNextRequest) {
  trackConnections();
  TestListener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  ASSERT_EQ(application.connectResult(kGenerous), 0);
  ConntrackEntries entries;
  std::vector<char> late;
  const testing::AlteredAnswers altered([&late](const std::vector<char>& sent) {
    if (late.empty()) {
      late = sent;
      return std::vector<testing::NetlinkAnswer>();
    }
    return std::vector<testing::NetlinkAnswer>{{late, 0}, {sent, 0}};
  });
  const auto tuple = tupleOf(application, AddressFamily::ipv4);
  EXPECT_EQ(codeOf(entries.remove(tuple)), EAGAIN);
  EXPECT_EQ(codeOf(entries.remove(tuple)), ENOENT) << "the first request has removed it";
}

class ConntrackEntriesOfRedirectionsTest : public ::testing::TestWithParam<const char*> {
 protected:
  ConntrackEntriesOfRedirectionsTest() {
    trackConnections();
    outputOf(
        "nft 'add table inet redirections; add chain inet redirections out "
        "{ type nat hook output priority -100; }; add rule inet redirections out "
        "tcp dport 8001 redirect to :8000'");
  }

  static bool isNotListened(const SocketEndpoint& /*endpoint*/) { return false; }

  TestListener listener_{GetParam(), 8000};
  ConntrackEntries entries_;
};

TEST_P(ConntrackEntriesOfRedirectionsTest, RemovesRedirectionsWithoutAListener) {
  const Connecting application(GetParam(), 8001);
  ASSERT_EQ(application.connectResult(kGenerous), 0);
  EXPECT_EQ(entries_.removeDeadRedirections(isNotListened), 1U);
  EXPECT_EQ(entries_.removeDeadRedirections(isNotListened), 0U);
}

TEST_P(ConntrackEntriesOfRedirectionsTest, RemovesRedirectionsThatWereReset) {
  const Connecting application(GetParam(), 8001);
  ASSERT_EQ(application.connectResult(kGenerous), 0);
  listener_.acceptAndResetOne(kGenerous);
  EXPECT_EQ(entries_.removeDeadRedirections(isNotListened), 1U);
}

TEST_P(ConntrackEntriesOfRedirectionsTest, KeepsRedirectionsWithAListener) {
  const Connecting application(GetParam(), 8001);
  ASSERT_EQ(application.connectResult(kGenerous), 0);
  const auto isListened = [](const SocketEndpoint& endpoint) {
    EXPECT_EQ(endpoint.addressText(), GetParam());
    EXPECT_EQ(endpoint.port, 8000);
    return true;
  };
  EXPECT_EQ(entries_.removeDeadRedirections(isListened), 0U);
}

TEST_P(ConntrackEntriesOfRedirectionsTest, KeepsConnectionsThatWereNotRedirected) {
  const Connecting application(GetParam(), 8000);
  ASSERT_EQ(application.connectResult(kGenerous), 0);
  EXPECT_EQ(entries_.removeDeadRedirections(isNotListened), 0U);
}

TEST_P(ConntrackEntriesOfRedirectionsTest, AReusedPortIsRedirectedAnewAfterAnAllowedReset) {
  constexpr std::uint16_t kSourcePort = 5000;
  const auto connect = [] {
    return std::make_unique<Connecting>(GetParam(), 8001,
                                        testing::SocketSettings{.sourcePort = kSourcePort});
  };
  auto application = connect();
  ASSERT_EQ(application->connectResult(kGenerous), 0);
  auto accepted = listener_.accept();
  const bool isIPv4 = std::string(GetParam()) == "127.0.0.1";
  FlowTuple tuple = tupleOf(*application, isIPv4 ? AddressFamily::ipv4 : AddressFamily::ipv6);
  tuple.destination.port = 8001;
  EXPECT_EQ(entries_.allowReopening(tuple), std::nullopt);
  accepted.reset();
  application.reset();
  outputOf(
      "nft 'flush chain inet redirections out; add rule inet redirections out "
      "tcp dport 8001 redirect to :8002'");
  const TestListener other(GetParam(), 8002);
  application = connect();
  EXPECT_EQ(application->connectResult(kGenerous), 0);
  EXPECT_EQ(other.acceptOne(kGenerous), kSourcePort);
}

INSTANTIATE_TEST_SUITE_P(Families, ConntrackEntriesOfRedirectionsTest,
                         ::testing::Values("127.0.0.1", "::1"), [](const auto& instance) {
                           return std::string(instance.param) == "::1" ? "IPv6" : "IPv4";
                         });

}  // namespace
}  // namespace ostravel::linuxplatform
