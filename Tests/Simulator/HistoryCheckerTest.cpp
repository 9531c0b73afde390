#include "Tests/Simulator/HistoryChecker.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "Tests/Simulator/Digest.h"

namespace ostravel::simulator {
namespace {

using namespace std::chrono_literals;

constexpr std::string_view kFlowId = "12345678-ABCD-4EF0-8123-456789ABCDEF";
constexpr std::string_view kRequest =
    "CONNECT example.org:443 HTTP/1.1\r\nHost: example.org:443\r\n"
    "X-Ostravel-App-Id: com.example.app\r\n"
    "X-Ostravel-Flow-Id: 12345678-ABCD-4EF0-8123-456789ABCDEF\r\n\r\n";
constexpr std::uint64_t kConnected = 3;

// Histories of one flow, written by hand.
class HistoryCheckerTest : public testing::Test {
 protected:
  explicit HistoryCheckerTest(HistoryChecker::Monitor monitor = HistoryChecker::Monitor::unreliable)
      : checker_(monitor) {
    happen({.kind = HistoryKind::providerMade});
    happen({.kind = HistoryKind::providerStarted});
    happen({.kind = HistoryKind::probeDone, .number = 1});
    finishStep();
  }

  void happen(const HistoryEvent& event) { checker_.consume(event, digestOf(event.bytes), now_); }
  void finishStep() { happen({.kind = HistoryKind::stepDone}); }

  void offer(std::uint64_t answer) {
    happen({.kind = HistoryKind::flowOffered, .flow = 1, .offered = &facts_});
    if (answer == 1) {
      happen({.kind = HistoryKind::flowOpen, .flow = 1});
    }
    happen({.kind = HistoryKind::flowAnswered, .flow = 1, .number = answer});
    finishStep();
  }

  void startTunnel() {
    offer(1);
    happen({.kind = HistoryKind::flowOpenDone, .flow = 1});
    happen({.kind = HistoryKind::connectionMade, .flow = 1, .bytes = kFlowId});
    happen({.kind = HistoryKind::observerAdded, .flow = 1, .number = 1});
    finishStep();
  }

  void sendRequest() {
    startTunnel();
    happen({.kind = HistoryKind::stateNotified, .flow = 1, .number = kConnected});
    happen({.kind = HistoryKind::observerRemoved, .flow = 1});
    happen(
        {.kind = HistoryKind::connectionWrite, .flow = 1, .number = kConnected, .bytes = kRequest});
    finishStep();
    happen({.kind = HistoryKind::connectionWriteDone, .flow = 1});
    happen({.kind = HistoryKind::connectionRead, .flow = 1, .number = 4096});
    finishStep();
  }

  void establish() {
    sendRequest();
    happen(
        {.kind = HistoryKind::connectionReadDone, .flow = 1, .bytes = "HTTP/1.1 200 OK\r\n\r\n"});
    happen({.kind = HistoryKind::flowRead, .flow = 1});
    happen({.kind = HistoryKind::connectionRead, .flow = 1, .number = 524288});
    finishStep();
  }

  void close() {
    happen({.kind = HistoryKind::flowCloseRead, .flow = 1});
    happen({.kind = HistoryKind::flowCloseWrite, .flow = 1});
    happen({.kind = HistoryKind::connectionCancel, .flow = 1});
  }

  void timeOut() {
    const platform::Error error{"OstravelProxy", 1002, "Proxy CONNECT handshake timed out"};
    happen({.kind = HistoryKind::timeoutFired, .flow = 1});
    happen({.kind = HistoryKind::flowCloseRead, .flow = 1, .error = &error});
    happen({.kind = HistoryKind::flowCloseWrite, .flow = 1, .error = &error});
    happen({.kind = HistoryKind::connectionCancel, .flow = 1});
  }

  std::string invariant() const {
    return checker_.violation() ? checker_.violation()->invariant : "none";
  }

  HistoryChecker checker_;
  OfferedFlow facts_{"com.example.app", true, "example.org", "443", Expectation::carry};
  std::chrono::nanoseconds now_{0};
};

TEST_F(HistoryCheckerTest, AcceptsATunnelThatEndsInOrder) {
  establish();
  happen({.kind = HistoryKind::flowReadDone, .flow = 1});
  close();
  finishStep();
  checker_.compareCounts({0, 0});
  happen({.kind = HistoryKind::connectionDestroyed, .flow = 1});
  happen({.kind = HistoryKind::flowDestroyed, .flow = 1});
  checker_.finish();

  EXPECT_EQ(invariant(), "none");
  EXPECT_EQ(checker_.successes(), 1U);
}

TEST_F(HistoryCheckerTest, FindsAFlowThatIsLeftAloneWhileTheGateIsOpen) {
  offer(0);

  EXPECT_EQ(invariant(), "a flow is left to the system although the gate is open");
}

TEST_F(HistoryCheckerTest, FindsAFlowThatIsTakenWhileTheGateIsClosed) {
  happen({.kind = HistoryKind::probeDone, .number = 0});
  offer(1);

  EXPECT_EQ(invariant(), "a flow is taken although the gate is closed");
}

TEST_F(HistoryCheckerTest, FindsAnotherRequest) {
  startTunnel();
  happen({.kind = HistoryKind::stateNotified, .flow = 1, .number = kConnected});
  happen({.kind = HistoryKind::observerRemoved, .flow = 1});
  happen({.kind = HistoryKind::connectionWrite,
          .flow = 1,
          .number = kConnected,
          .bytes = "CONNECT example.org:443 HTTP/1.1\r\n\r\n"});

  EXPECT_EQ(invariant(), "the request is not the one for this flow");
}

TEST_F(HistoryCheckerTest, FindsAReadOfTheApplicationBeforeTheAnswer) {
  sendRequest();
  happen({.kind = HistoryKind::flowRead, .flow = 1});

  EXPECT_EQ(invariant(), "the application is read out of turn");
}

TEST_F(HistoryCheckerTest, FindsAlteredBytes) {
  establish();
  happen({.kind = HistoryKind::connectionReadDone, .flow = 1, .bytes = "abc"});
  happen({.kind = HistoryKind::flowWrite, .flow = 1, .bytes = "abd"});

  EXPECT_EQ(invariant(), "the application gets other bytes than the proxy sent");
}

TEST_F(HistoryCheckerTest, FindsASecondClose) {
  establish();
  happen({.kind = HistoryKind::flowReadDone, .flow = 1});
  close();
  close();

  EXPECT_EQ(invariant(), "a flow is closed twice");
}

TEST_F(HistoryCheckerTest, FindsACloseWithoutAReason) {
  establish();
  close();

  EXPECT_EQ(invariant(), "a flow is closed for another reason than it has");
}

TEST_F(HistoryCheckerTest, FindsAnEndThatDoesNotClose) {
  establish();
  happen({.kind = HistoryKind::flowReadDone, .flow = 1});
  finishStep();

  EXPECT_EQ(invariant(), "a flow is not closed although it has ended");
}

TEST_F(HistoryCheckerTest, FindsADirectionThatHasStopped) {
  establish();
  happen({.kind = HistoryKind::flowReadDone, .flow = 1, .bytes = "abc"});
  finishStep();

  EXPECT_EQ(invariant(),
            "a direction of an established tunnel waits for nothing, or for two things");
}

TEST_F(HistoryCheckerTest, FindsAWrongCount) {
  sendRequest();
  checker_.compareCounts({0, 0});

  EXPECT_NE(invariant(), "none");
}

TEST_F(HistoryCheckerTest, FindsAHandshakeThatIsPendingTooLong) {
  sendRequest();
  checker_.passTime(5s);
  EXPECT_EQ(invariant(), "none");
  checker_.passTime(5s + 1ns);

  EXPECT_EQ(invariant(), "a handshake is pending for longer than its time-out");
}

TEST_F(HistoryCheckerTest, FindsATimeoutAfterTheSuccess) {
  establish();
  now_ = 5s;
  happen({.kind = HistoryKind::timeoutFired, .flow = 1});

  EXPECT_EQ(invariant(), "the handshake times out although it is over");
}

TEST_F(HistoryCheckerTest, FindsATimeoutThatIsEarly) {
  sendRequest();
  now_ = 5s - 1ns;
  happen({.kind = HistoryKind::timeoutFired, .flow = 1});

  EXPECT_EQ(invariant(), "the handshake times out early");
}

TEST_F(HistoryCheckerTest, ForgivesACloseInTheMiddleOfAStart) {
  startTunnel();
  now_ = 5s;
  happen({.kind = HistoryKind::stateNotified, .flow = 1, .number = kConnected});
  timeOut();
  happen({.kind = HistoryKind::observerRemoved, .flow = 1});
  happen(
      {.kind = HistoryKind::connectionWrite, .flow = 1, .number = kConnected, .bytes = kRequest});
  finishStep();

  EXPECT_EQ(invariant(), "none");
}

TEST_F(HistoryCheckerTest, FindsAnObserverThatACloseLeaves) {
  startTunnel();
  now_ = 5s;
  happen({.kind = HistoryKind::stateNotified, .flow = 1, .number = kConnected});
  timeOut();
  happen(
      {.kind = HistoryKind::connectionWrite, .flow = 1, .number = kConnected, .bytes = kRequest});
  finishStep();

  EXPECT_EQ(invariant(), "a closed tunnel still observes its connection");
}

TEST_F(HistoryCheckerTest, FindsAnObserverThatAHandshakeLeaves) {
  startTunnel();
  happen({.kind = HistoryKind::stateNotified, .flow = 1, .number = kConnected});
  happen(
      {.kind = HistoryKind::connectionWrite, .flow = 1, .number = kConnected, .bytes = kRequest});
  finishStep();

  EXPECT_EQ(invariant(), "a tunnel observes its connection after its handshake has begun");
}

TEST_F(HistoryCheckerTest, FindsLeftovers) {
  establish();
  checker_.finish();

  EXPECT_EQ(invariant(), "a flow is never destroyed");
}

TEST_F(HistoryCheckerTest, FindsAClosedTunnelThatIsNotReleased) {
  establish();
  happen({.kind = HistoryKind::flowReadDone, .flow = 1});
  close();
  finishStep();
  checker_.passTime(11s);
  EXPECT_EQ(invariant(), "none") << "the proxy is still being read";
  happen({.kind = HistoryKind::connectionReadDone, .flow = 1});
  finishStep();
  checker_.passTime(now_ + 10s);
  EXPECT_EQ(invariant(), "none");
  checker_.passTime(now_ + 10s + 1ns);

  EXPECT_EQ(invariant(), "a closed tunnel is not released");
}

TEST_F(HistoryCheckerTest, ForgivesATunnelThatIsReleasedInTime) {
  establish();
  happen({.kind = HistoryKind::flowReadDone, .flow = 1});
  close();
  happen({.kind = HistoryKind::connectionReadDone, .flow = 1});
  finishStep();
  happen({.kind = HistoryKind::connectionDestroyed, .flow = 1});
  happen({.kind = HistoryKind::flowDestroyed, .flow = 1});
  finishStep();
  checker_.passTime(now_ + 11s);

  EXPECT_EQ(invariant(), "none");
}

TEST_F(HistoryCheckerTest, FindsATimeoutOfAForgottenTunnel) {
  sendRequest();
  happen({.kind = HistoryKind::providerStopped});
  finishStep();
  now_ = 5s;
  timeOut();

  EXPECT_EQ(invariant(), "the handshake of a forgotten tunnel times out");
}

TEST_F(HistoryCheckerTest, FindsAProbeAfterTheStop) {
  happen({.kind = HistoryKind::providerStopped});
  finishStep();
  happen({.kind = HistoryKind::probeDone, .number = 1});

  EXPECT_EQ(invariant(), "the proxy is probed although the provider is stopped");
}

TEST_F(HistoryCheckerTest, ForgivesAStoppedProviderThatForgetsItsTunnels) {
  establish();
  happen({.kind = HistoryKind::providerStopped});
  happen({.kind = HistoryKind::connectionDestroyed, .flow = 1});
  happen({.kind = HistoryKind::flowDestroyed, .flow = 1});
  finishStep();

  EXPECT_EQ(invariant(), "none");
}

class MonitoredHistoryTest : public HistoryCheckerTest {
 protected:
  MonitoredHistoryTest() : HistoryCheckerTest(HistoryChecker::Monitor::reliable) {}

  // Three events are expected: the start, the success and the end.
  void endUnreported() {
    establish();
    happen({.kind = HistoryKind::flowReadDone, .flow = 1});
    close();
    finishStep();
    happen({.kind = HistoryKind::connectionDestroyed, .flow = 1});
    happen({.kind = HistoryKind::flowDestroyed, .flow = 1});
  }

  void finishWithLine(std::string_view line) {
    happen({.kind = HistoryKind::logLine, .bytes = line});
    checker_.finish();
  }
};

TEST_F(MonitoredHistoryTest, FindsAnEventThatIsMissing) {
  endUnreported();
  finishWithLine("OstravelProxy monitoring events dropped: 2");
  EXPECT_EQ(invariant().rfind("the reported events are not those that happened: 0 instead of", 0),
            0U)
      << invariant();
}

TEST_F(MonitoredHistoryTest, ForgivesEventsThatWereReportedAsDropped) {
  endUnreported();
  finishWithLine("OstravelProxy monitoring events dropped: 3");
  EXPECT_EQ(invariant(), "none");
}

}  // namespace
}  // namespace ostravel::simulator
