#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Extension/FilterDataProvider/OVTunnelConnection.h"
#include "Tests/Extension/Support/ScriptedConnection.h"
#include "Tests/Extension/Support/TunnelTest.h"

namespace ostravel {
namespace {

using platform::TCPConnectionState;
using test::EventFacts;
using test::someError;
using test::TunnelTest;
using namespace std::chrono_literals;

using Lines = std::vector<std::string>;
using WatchdogState = PacketTunnelProviderTestPeer::WatchdogState;

// --- close

class TunnelClose : public TunnelTest {};

TEST_F(TunnelClose, WithoutAnErrorTearsDownInThisOrder) {
  make();
  start();

  tunnel_->close(std::nullopt);

  EXPECT_EQ(journal(), (Lines{"event tunnel_closed", "flow 1: closeRead", "flow 1: closeWrite",
                              "connection 1: cancel", "closed FLOW"}));
}

TEST_F(TunnelClose, WithAnErrorBeforeTheHandshakeReportsTheProxyFirst) {
  make();
  start();

  tunnel_->close(someError());

  EXPECT_EQ(journal(),
            (Lines{"proxy unavailable", "event tunnel_closed", "flow 1: closeRead: Something broke",
                   "flow 1: closeWrite: Something broke", "connection 1: cancel", "closed FLOW"}));
}

TEST_F(TunnelClose, WithAnErrorAfterTheHandshakeDoesNotReportTheProxy) {
  make();
  establish();
  clearJournal();

  tunnel_->close(someError());

  EXPECT_EQ(journal(),
            (Lines{"event tunnel_closed", "flow 1: closeRead: Something broke",
                   "flow 1: closeWrite: Something broke", "connection 1: cancel", "closed FLOW"}));
}

TEST_F(TunnelClose, StopsObservingAndFinishesTheWatchdogBeforeTheCallbacks) {
  make();
  start();

  tunnel_->close(someError());

  EXPECT_EQ(observedSeen_, false);
  EXPECT_EQ(watchdogSeen_, WatchdogState::finished);
}

TEST_F(TunnelClose, WithoutAnErrorIsReportedAsTheEnd) {
  make();
  start();

  tunnel_->close(std::nullopt);

  EXPECT_EQ(
      events(),
      std::vector{(EventFacts{.signal = "tunnel_closed",
                              .code = "extension.tunnel_closed",
                              .level = "info",
                              .message = "Tunnel closed",
                              .flowID = "FLOW",
                              .context = {{{"app_id", "com.example.app"}, {"detail", "eof"}}}})});
}

TEST_F(TunnelClose, WithAnErrorIsReportedWithItsDescription) {
  make();
  start();

  tunnel_->close(someError());

  EXPECT_EQ(events(), std::vector{(EventFacts{.signal = "tunnel_closed",
                                              .code = "extension.tunnel_closed",
                                              .level = "error",
                                              .message = "Tunnel closed with error",
                                              .flowID = "FLOW",
                                              .context = {{{"app_id", "com.example.app"},
                                                           {"detail", "Something broke"}}}})});
}

TEST_F(TunnelClose, GivesTheErrorToBothSidesOfTheFlow) {
  make();
  start();

  tunnel_->close(someError());

  EXPECT_EQ(flow_->readCloseError(), someError());
  EXPECT_EQ(flow_->writeCloseError(), someError());
}

TEST_F(TunnelClose, GivesThePlatformsOwnErrorObjectToBothSides) {
  make();
  start();
  platform::Error error = someError();
  error.platformObject = std::make_shared<platform::Error::PlatformObject>();

  tunnel_->close(error);

  EXPECT_EQ(flow_->readCloseError()->platformObject, error.platformObject);
  EXPECT_EQ(flow_->writeCloseError()->platformObject, error.platformObject);
}

TEST_F(TunnelClose, MakesItsTimeoutErrorAsAValue) {
  make();
  start();

  simulation_.advance(5s);

  EXPECT_EQ(flow_->readCloseError()->platformObject, nullptr);
}

TEST_F(TunnelClose, IsReportedWithTheTimeOfDay) {
  make();
  simulation_.advance(90500ms);

  tunnel_->close(std::nullopt);

  EXPECT_EQ(records()[0].timestamp, simulation::SimulatedClock::kStart + 90.5);
  EXPECT_EQ(records()[0].loggedAt, "2020-09-13T12:28:10Z");
  EXPECT_EQ(records()[0].type, "extension_proxy_event");
  EXPECT_EQ(records()[0].component, "network_extension");
  EXPECT_EQ(records()[0].messageID.size(), 36U);
}

TEST_F(TunnelClose, LogsNothingItself) {
  make();
  start();

  tunnel_->close(someError());

  EXPECT_EQ(simulation_.logLines(), Lines{});
}

TEST_F(TunnelClose, HasNoEffectASecondTime) {
  make();
  start();
  tunnel_->close(std::nullopt);
  clearJournal();

  tunnel_->close(std::nullopt);
  tunnel_->close(someError());

  EXPECT_EQ(journal(), Lines{});
}

TEST_F(TunnelClose, WithAnErrorHasNoEffectASecondTime) {
  make();
  start();
  tunnel_->close(someError());
  clearJournal();

  tunnel_->close(someError());

  EXPECT_EQ(journal(), Lines{});
}

TEST_F(TunnelClose, LeavesAnIdleWatchdogIdle) {
  make();

  tunnel_->close(std::nullopt);

  EXPECT_EQ(watchdogState(), WatchdogState::idle);
}

TEST_F(TunnelClose, FinishesARunningWatchdogForGood) {
  make();
  start();

  tunnel_->close(std::nullopt);
  simulation_.advance(10s);

  EXPECT_EQ(watchdogState(), WatchdogState::finished);
  EXPECT_EQ(signals(), Lines{"tunnel_closed"});
}

TEST_F(TunnelClose, WithoutCallbacksTearsDownAsWell) {
  make({.withCallbacks = false});
  start();

  tunnel_->close(someError());

  EXPECT_EQ(journal(), (Lines{"event tunnel_closed", "flow 1: closeRead: Something broke",
                              "flow 1: closeWrite: Something broke", "connection 1: cancel"}));
}

TEST_F(TunnelClose, IsNotPartOfDestruction) {
  make();
  start();

  tunnel_.reset();

  EXPECT_EQ(journal(), Lines{});
  EXPECT_FALSE(flow_->readWasClosed());
  EXPECT_FALSE(connection_->wasCancelled());
}

// --- Observation

class TunnelObservation : public TunnelTest {
 protected:
  void SetUp() override {
    make();
    start();
  }
};

TEST_F(TunnelObservation, OfADisconnectionClosesWithTheConnectionsError) {
  connection_->refuse(someError("Connection refused"));
  simulation_.run();

  EXPECT_EQ(journal(), (Lines{"connection 1: state disconnected", "proxy unavailable",
                              "event tunnel_closed", "flow 1: closeRead: Connection refused",
                              "flow 1: closeWrite: Connection refused", "connection 1: cancel",
                              "closed FLOW", "connection 1: state cancelled"}));
}

TEST_F(TunnelObservation, OfADisconnectionPassesOnThePlatformsOwnErrorObject) {
  test::ScriptedConnection disconnected;
  disconnected.currentState = TCPConnectionState::disconnected;
  disconnected.currentError = someError();
  disconnected.currentError->platformObject = std::make_shared<platform::Error::PlatformObject>();

  tunnel_->observeValue("state", &disconnected);

  EXPECT_EQ(flow_->readCloseError()->platformObject, disconnected.currentError->platformObject);
}

TEST_F(TunnelObservation, OfADisconnectionWithoutAnErrorClosesInOrder) {
  connection_->setState(TCPConnectionState::disconnected);

  EXPECT_EQ(journal(),
            (Lines{"connection 1: state disconnected", "event tunnel_closed", "flow 1: closeRead",
                   "flow 1: closeWrite", "connection 1: cancel", "closed FLOW"}));
}

TEST_F(TunnelObservation, OfACancelledConnectionClosesInOrderWhateverItsError) {
  test::ScriptedConnection cancelled;
  cancelled.currentState = TCPConnectionState::cancelled;
  cancelled.currentError = someError();

  tunnel_->observeValue("state", &cancelled);

  EXPECT_EQ(records().back().context->at("detail"), "eof");
  EXPECT_EQ(simulation_.journal().linesWith("proxy unavailable"), Lines{});
}

TEST_F(TunnelObservation, OfAnotherStateHasNoEffect) {
  for (const auto state :
       {TCPConnectionState::invalid, TCPConnectionState::connecting, TCPConnectionState::waiting}) {
    connection_->setState(state);
  }
  simulation_.run();

  EXPECT_EQ(signals(), Lines{});
  EXPECT_EQ(connection_->observerCount(), 1U);
  EXPECT_EQ(proxy().writes(), Lines{});
}

TEST_F(TunnelObservation, OfAnotherKeyPathHasNoEffect) {
  tunnel_->close(std::nullopt);
  make();
  connection_->setState(TCPConnectionState::connected);
  clearJournal();

  tunnel_->observeValue("error", connection_.get());
  tunnel_->observeValue("State", connection_.get());
  tunnel_->observeValue("state ", connection_.get());
  tunnel_->observeValue("", connection_.get());
  tunnel_->observeValue(std::nullopt, connection_.get());

  EXPECT_EQ(journal(), Lines{});
}

TEST_F(TunnelObservation, OfAnObjectThatIsNoConnectionHasNoEffect) {
  class Other : public platform::Observable {};
  Other other;

  tunnel_->observeValue("state", &other);
  tunnel_->observeValue("state", nullptr);

  EXPECT_EQ(journal(), Lines{});
}

TEST_F(TunnelObservation, EndsWithTheRequest) {
  connection_->accept();
  simulation_.run();

  EXPECT_EQ(connection_->observerCount(), 0U);
}

TEST_F(TunnelObservation, AfterTheTunnelIsGoneDoesNothing) {
  tunnel_.reset();

  connection_->accept();
  simulation_.run();

  EXPECT_EQ(journal(), Lines{"connection 1: state connected"});
}

TEST_F(TunnelObservation, OfADisconnectionAfterTheHandshakeIsLeftToTheRelay) {
  connection_->accept();
  simulation_.run();
  proxy().send(kSuccess);
  simulation_.run();

  proxy().reset(someError("Reset"));
  simulation_.run();

  EXPECT_EQ(events("tunnel_closed").size(), 1U);
  EXPECT_EQ(simulation_.logLines(platform::LogLevel::debug).at(0),
            "OstravelProxy: Proxy read error: Reset");
}

}  // namespace
}  // namespace ostravel
