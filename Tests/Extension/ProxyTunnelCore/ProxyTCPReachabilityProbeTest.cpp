#include "Extension/ProxyTunnelCore/ProxyTCPReachabilityProbe.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "Platform/Simulation/Simulation.h"
#include "Tests/Extension/Support/Bytes.h"
#include "Tests/Extension/Support/SocketCallLines.h"

namespace ostravel {
namespace {

using platform::SocketAddressLayout;
using simulation::SocketCallKind;
using test::bytesOf;
using test::linesOf;
using namespace std::chrono_literals;
using enum ProxyHealthProbeResult;

using Lines = std::vector<std::string>;

class ProxyTCPReachabilityProbeTest : public testing::Test {
 protected:
  void SetUp() override { sockets().proxyListening(true); }

  // A socket that was opened is closed once and not used afterwards.
  void TearDown() override {
    const auto opened = sockets().calls(SocketCallKind::socket).at(0).result.value >= 0;
    EXPECT_EQ(sockets().openDescriptors(), 0U);
    EXPECT_EQ(sockets().calls(SocketCallKind::close).size(), opened ? 1U : 0U);
    EXPECT_EQ(sockets().calls().back().kind == SocketCallKind::close, opened);
    EXPECT_TRUE(sockets().calls(SocketCallKind::write).empty());
  }

  simulation::SimulatedSockets& sockets() { return simulation_.sockets(); }

  ProxyHealthProbeResult check(const std::string& host = "127.0.0.1") {
    return ProxyTCPReachabilityProbe(sockets(), host, 8080, 0.35s).check();
  }

  // The calls so far must be the first of these, in this order, and the close.
  void expectCallsUpTo(std::string_view last) {
    Lines expected = {
        "socket " + std::to_string(AF_INET) + " " + std::to_string(SOCK_STREAM) + " 0",
        "statusFlags",
        "setStatusFlags " + std::to_string(O_RDWR | O_NONBLOCK),
        "connect 16 bytes",
        "poll 350 ms",
        "pendingError"};
    const auto end = std::find_if(expected.begin(), expected.end(),
                                  [last](const auto& line) { return line.starts_with(last); });
    ASSERT_NE(end, expected.end());
    expected.erase(end + 1, expected.end());
    expected.emplace_back("close");
    EXPECT_EQ(linesOf(sockets().calls()), expected);
  }

  simulation::Simulation simulation_;
};

TEST_F(ProxyTCPReachabilityProbeTest, FindsAListener) {
  EXPECT_EQ(check(), reachable);
  expectCallsUpTo("pendingError");
}

TEST_F(ProxyTCPReachabilityProbeTest, IsUnreachableWithoutAListener) {
  sockets().proxyListening(false);

  EXPECT_EQ(check(), unreachable);
  expectCallsUpTo("pendingError");
}

TEST_F(ProxyTCPReachabilityProbeTest, IsUnreachableWithoutAnAnswerInTime) {
  sockets().proxySilent();

  EXPECT_EQ(check(), unreachable);
  expectCallsUpTo("poll");
}

TEST_F(ProxyTCPReachabilityProbeTest, IsUnreachableWithoutASocketAndClosesNothing) {
  sockets().answerNext(SocketCallKind::socket, {-1, EMFILE});

  EXPECT_EQ(check(), unreachable);
  EXPECT_EQ(sockets().calls().size(), 1U);
}

TEST_F(ProxyTCPReachabilityProbeTest, AcceptsDescriptorZero) {
  sockets().answerNext(SocketCallKind::socket, {0, 0});

  EXPECT_EQ(check(), reachable);
}

TEST_F(ProxyTCPReachabilityProbeTest, IsUnreachableWhenTheFlagsCannotBeRead) {
  sockets().answerNext(SocketCallKind::statusFlags, {-1, EBADF});

  EXPECT_EQ(check(), unreachable);
  expectCallsUpTo("statusFlags");
}

TEST_F(ProxyTCPReachabilityProbeTest, IsUnreachableWhenTheFlagsCannotBeSet) {
  sockets().answerNext(SocketCallKind::setStatusFlags, {-1, EBADF});

  EXPECT_EQ(check(), unreachable);
  expectCallsUpTo("setStatusFlags");
}

TEST_F(ProxyTCPReachabilityProbeTest, KeepsTheFlagsThatAreSet) {
  sockets().answerNext(SocketCallKind::statusFlags, {O_RDWR | O_APPEND, 0});

  EXPECT_EQ(check(), reachable);
  EXPECT_EQ(sockets().calls(SocketCallKind::setStatusFlags).at(0).flags,
            O_RDWR | O_APPEND | O_NONBLOCK);
}

TEST_F(ProxyTCPReachabilityProbeTest, AcceptsASocketWithoutFlags) {
  sockets().answerNext(SocketCallKind::statusFlags, {0, 0});

  EXPECT_EQ(check(), reachable);
  EXPECT_EQ(sockets().calls(SocketCallKind::setStatusFlags).at(0).flags, O_NONBLOCK);
}

TEST_F(ProxyTCPReachabilityProbeTest, IsReachableWhenConnectSucceedsAtOnce) {
  sockets().answerNext(SocketCallKind::connect, {0, 0});

  EXPECT_EQ(check(), reachable);
  expectCallsUpTo("connect");
}

TEST_F(ProxyTCPReachabilityProbeTest, IsUnreachableWhenConnectIsRefusedAtOnce) {
  sockets().answerNext(SocketCallKind::connect, {-1, ECONNREFUSED});

  EXPECT_EQ(check(), unreachable);
  expectCallsUpTo("connect");
}

TEST_F(ProxyTCPReachabilityProbeTest, IsUnreachableWhenConnectIsInterrupted) {
  sockets().answerNext(SocketCallKind::connect, {-1, EINTR});

  EXPECT_EQ(check(), unreachable);
  expectCallsUpTo("connect");
}

TEST_F(ProxyTCPReachabilityProbeTest, IsReachableWhateverPositiveCountPollReports) {
  sockets().answerNext(SocketCallKind::pollWritable, {2, 0});

  EXPECT_EQ(check(), reachable);
  expectCallsUpTo("pendingError");
}

TEST_F(ProxyTCPReachabilityProbeTest, IsUnreachableWhenTheWaitTimesOutThoughTheProxyListens) {
  sockets().answerNext(SocketCallKind::pollWritable, {0, 0});

  EXPECT_EQ(check(), unreachable);
  expectCallsUpTo("poll");
}

TEST_F(ProxyTCPReachabilityProbeTest, IsUnreachableWhenTheWaitIsInterrupted) {
  sockets().answerNext(SocketCallKind::pollWritable, {-1, EINTR});

  EXPECT_EQ(check(), unreachable);
  expectCallsUpTo("poll");
}

TEST_F(ProxyTCPReachabilityProbeTest, IsUnreachableWhenThePendingErrorCannotBeRead) {
  sockets().answerNext(SocketCallKind::pendingError, {-1, EBADF});

  EXPECT_EQ(check(), unreachable);
  expectCallsUpTo("pendingError");
}

TEST_F(ProxyTCPReachabilityProbeTest, IsUnreachableWithAnyPendingError) {
  sockets().answerNext(SocketCallKind::pendingError, {ETIMEDOUT, 0});

  EXPECT_EQ(check(), unreachable);
  expectCallsUpTo("pendingError");
}

TEST_F(ProxyTCPReachabilityProbeTest, ConnectsToTheLinuxAddressBytes) {
  check();

  const int family = AF_INET;
  EXPECT_EQ(sockets().calls(SocketCallKind::connect).at(0).bytes,
            bytesOf({family, 0, 0x1F, 0x90, 127, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(ProxyTCPReachabilityProbeTest, ConnectsToTheDarwinAddressBytes) {
  sockets().setAddressLayout(SocketAddressLayout::darwinABI);

  check();

  const int family = AF_INET;
  EXPECT_EQ(sockets().calls(SocketCallKind::connect).at(0).bytes,
            bytesOf({0, family, 0x1F, 0x90, 127, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(ProxyTCPReachabilityProbeTest, RoundsTheTimeoutToTheNearestMillisecond) {
  ProxyTCPReachabilityProbe(sockets(), "127.0.0.1", 8080, 0.0016s).check();

  EXPECT_EQ(sockets().calls(SocketCallKind::pollWritable).at(0).timeout, 2ms);
}

class ProbeOfAnotherHost : public ProxyTCPReachabilityProbeTest,
                           public testing::WithParamInterface<const char*> {};

TEST_P(ProbeOfAnotherHost, IsUnreachableWithoutAConnectionAttempt) {
  EXPECT_EQ(check(GetParam()), unreachable);
  expectCallsUpTo("setStatusFlags");
}

INSTANTIATE_TEST_SUITE_P(Hosts, ProbeOfAnotherHost,
                         testing::Values("localhost", "::1", "", "127.0.0.1.", "300.0.0.1"));

}  // namespace
}  // namespace ostravel
