#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Extension/FilterDataProvider/OVTunnelConnection.h"
#include "Tests/Extension/Support/ScriptedConnection.h"
#include "Tests/Extension/Support/ScriptedFlow.h"
#include "Tests/Extension/Support/TunnelTest.h"

namespace ostravel {
namespace {

using platform::LogLevel;
using platform::TCPConnectionState;
using test::EventFacts;
using test::ScriptedConnection;
using test::ScriptedFlow;
using test::someError;
using test::TunnelTest;
using namespace std::chrono_literals;

using Lines = std::vector<std::string>;
using WatchdogState = PacketTunnelProviderTestPeer::WatchdogState;

// --- Construction and start

class TunnelStart : public TunnelTest {};

TEST_F(TunnelStart, ConstructionTouchesAndLogsNothing) {
  make();

  EXPECT_EQ(journal(), Lines{});
  EXPECT_EQ(simulation_.logLines(), Lines{});
  EXPECT_EQ(connection_->observerCount(), 0U);
}

TEST_F(TunnelStart, ArmsTheWatchdogAndObservesTheConnection) {
  make();

  start();

  EXPECT_EQ(watchdogState(), WatchdogState::running);
  EXPECT_EQ(connection_->observerCount(), 1U);
  EXPECT_EQ(journal(), Lines{});
}

TEST_F(TunnelStart, ObservesTheStateOnly) {
  const auto connection = std::make_shared<ScriptedConnection>();
  make({.connection = connection});

  tunnel_->start();

  EXPECT_EQ(connection->calls(), Lines{"addObserver state"});
}

TEST_F(TunnelStart, BeginsTheHandshakeInsideStartIfAlreadyConnected) {
  const auto connection = std::make_shared<ScriptedConnection>();
  connection->currentState = TCPConnectionState::connected;
  make({.connection = connection});

  tunnel_->start();

  EXPECT_EQ(connection->calls(), (Lines{"addObserver state", "removeObserver state",
                                        "write " + std::to_string(kRequest.size())}));
}

// A connection whose state changes, on another thread, while start() is adding the observer.
class TunnelStartRace : public TunnelTest {
 protected:
  void startWithNotificationOf(TCPConnectionState state) {
    scripted_->duringAddObserver = [this, state](platform::KeyValueObserver& observer) {
      scripted_->currentState = state;
      std::thread([this, &observer] { observer.observeValue("state", scripted_.get()); }).join();
      scripted_->currentState = stateAfterwards_.value_or(state);
    };
    make({.connection = scripted_});
    tunnel_->start();
  }

  const std::shared_ptr<ScriptedConnection> scripted_ = std::make_shared<ScriptedConnection>();
  std::optional<TCPConnectionState> stateAfterwards_;
};

TEST_F(TunnelStartRace, AChangeToConnectedLeavesNoObserver) {
  startWithNotificationOf(TCPConnectionState::connected);

  EXPECT_EQ(scripted_->callsOf("removeObserver state"), 1);
  EXPECT_EQ(scripted_->callsOf("write " + std::to_string(kRequest.size())), 1);
}

TEST_F(TunnelStartRace, AChangeToConnectedAndBackLeavesNoObserver) {
  stateAfterwards_ = TCPConnectionState::disconnected;

  startWithNotificationOf(TCPConnectionState::connected);

  EXPECT_EQ(scripted_->callsOf("removeObserver state"), 1);
  EXPECT_EQ(scripted_->callsOf("write " + std::to_string(kRequest.size())), 1);
}

TEST_F(TunnelStartRace, ADisconnectionLeavesNoObserver) {
  startWithNotificationOf(TCPConnectionState::disconnected);

  EXPECT_EQ(scripted_->callsOf("removeObserver state"), 1);
  EXPECT_EQ(events("tunnel_closed").size(), 1U);
}

TEST_F(TunnelStart, BeginsTheHandshakeOnceConnected) {
  make();
  start();

  connection_->accept();
  simulation_.run();

  EXPECT_EQ(connection_->observerCount(), 0U);
  EXPECT_EQ(proxy().received(), kRequest);
  EXPECT_EQ(signals(), Lines{"connect_handshake_started"});
}

TEST_F(TunnelStart, SendsOneRequestWhateverTheObservationRepeats) {
  make();
  startAndConnect();

  tunnel_->observeValue("state", connection_.get());
  simulation_.run();

  EXPECT_EQ(proxy().writes(), Lines{kRequest});
}

TEST_F(TunnelStart, WithATimeoutOfZeroIsClosedBeforeStartReturns) {
  make({.handshakeTimeout = 0.0});

  tunnel_->start();

  EXPECT_EQ(journal(),
            (Lines{"event connect_handshake_timed_out", "proxy unavailable", "event tunnel_closed",
                   "flow 1: closeRead: Proxy CONNECT handshake timed out",
                   "flow 1: closeWrite: Proxy CONNECT handshake timed out", "connection 1: cancel",
                   "closed FLOW"}));
  EXPECT_EQ(watchdogState(), WatchdogState::idle);
  EXPECT_EQ(connection_->observerCount(), 0U);
}

TEST_F(TunnelStart, WithATimeoutOfZeroSendsNothing) {
  make({.handshakeTimeout = 0.0});
  connection_->setState(TCPConnectionState::connected);

  start();

  EXPECT_EQ(proxy().writes(), Lines{});
}

// --- Request

class TunnelRequest : public TunnelTest {};

TEST_F(TunnelRequest, HasExactlyTheseBytes) {
  make();

  startAndConnect();

  EXPECT_EQ(proxy().received(),
            "CONNECT 192.0.2.10:443 HTTP/1.1\r\n"
            "Host: 192.0.2.10:443\r\n"
            "X-Ostravel-App-Id: com.example.app\r\n"
            "X-Ostravel-Flow-Id: FLOW\r\n"
            "\r\n");
}

TEST_F(TunnelRequest, BracketsAnIPv6Literal) {
  make({.remoteEndpoint = {{"2001:db8::1", "443"}}});

  startAndConnect();

  EXPECT_EQ(proxy().received(),
            "CONNECT [2001:db8::1]:443 HTTP/1.1\r\n"
            "Host: [2001:db8::1]:443\r\n"
            "X-Ostravel-App-Id: com.example.app\r\n"
            "X-Ostravel-Flow-Id: FLOW\r\n"
            "\r\n");
  EXPECT_EQ(records()[0].context->at("remote"), "[2001:db8::1]:443");
}

TEST_F(TunnelRequest, UsesTheHostExactlyAsTheEndpointGivesIt) {
  make({.remoteEndpoint = {{"fe80::1%en0", "https"}}});

  startAndConnect();

  EXPECT_TRUE(proxy().received().starts_with("CONNECT [fe80::1%en0]:https HTTP/1.1\r\n"));
}

TEST_F(TunnelRequest, KeepsTheCaseAndTheRootDotOfAName) {
  make({.remoteEndpoint = {{"WWW.Example.COM.", "443"}}});

  startAndConnect();

  EXPECT_TRUE(proxy().received().starts_with("CONNECT WWW.Example.COM.:443 HTTP/1.1\r\n"));
}

TEST_F(TunnelRequest, HasAnEmptyTargetWithoutAHostEndpoint) {
  make({.remoteEndpoint = std::nullopt});

  startAndConnect();

  EXPECT_EQ(proxy().received(),
            "CONNECT  HTTP/1.1\r\n"
            "Host: \r\n"
            "X-Ostravel-App-Id: com.example.app\r\n"
            "X-Ostravel-Flow-Id: FLOW\r\n"
            "\r\n");
  EXPECT_EQ(records()[0].context->at("remote"), "");
}

TEST_F(TunnelRequest, LeavesLineEndsOutOfTheIdentifiers) {
  make({.appId = "\r\ncom.\rexample\n.app\r\n", .flowId = "F\r\nL\nO\rW"});

  startAndConnect();

  EXPECT_TRUE(
      proxy().received().ends_with("X-Ostravel-App-Id: com.example.app\r\n"
                                   "X-Ostravel-Flow-Id: FLOW\r\n"
                                   "\r\n"));
}

TEST_F(TunnelRequest, ChangesNothingElseInTheIdentifiers) {
  make({.appId = " a: b\t\u2028\u00E4 "});

  startAndConnect();

  EXPECT_NE(proxy().received().find("X-Ostravel-App-Id:  a: b\t\u2028\u00E4 \r\n"),
            std::string::npos);
}

TEST_F(TunnelRequest, LeavesTheIdentifiersOfTheEventsAsTheyAre) {
  make({.appId = "com.\r\nexample", .flowId = "F\r\nLOW"});

  establish();
  tunnel_->close(std::nullopt);

  for (const auto& record : records()) {
    EXPECT_EQ(record.context->at("app_id"), "com.\r\nexample") << record.signal;
    EXPECT_EQ(record.flowID, "F\r\nLOW") << record.signal;
  }
  EXPECT_EQ(records().size(), 3U);
}

TEST_F(TunnelRequest, ThatIsNotUTF8ClosesInOrderWithoutBeingSent) {
  make({.remoteEndpoint = {{"bad\xFFhost", "443"}}});

  startAndConnect();

  EXPECT_EQ(proxy().writes(), Lines{});
  EXPECT_EQ(signals(), Lines{"tunnel_closed"});
  EXPECT_EQ(records()[0].context->at("detail"), "eof");
  EXPECT_EQ(simulation_.logLines(), Lines{});
}

TEST_F(TunnelRequest, IsAnnouncedInTheLogWithoutDetails) {
  make();

  startAndConnect();

  EXPECT_EQ(simulation_.logLines(LogLevel::standard),
            Lines{"OstravelProxy: Sending CONNECT handshake (details private)"});
  EXPECT_EQ(simulation_.logRecords()[0].subsystem, "com.ostravel.simulation");
  EXPECT_EQ(simulation_.logRecords()[0].category, "OstravelProxy");
}

TEST_F(TunnelRequest, IsReportedBetweenItsLogLineAndItsWrite) {
  make();
  start();

  connection_->setState(TCPConnectionState::connected);

  EXPECT_EQ(lineLoggedBefore("connect_handshake_started"),
            "OstravelProxy: Sending CONNECT handshake (details private)");
  EXPECT_EQ(journal(),
            (Lines{"connection 1: state connected", "event connect_handshake_started",
                   "connection 1: write " + std::to_string(kRequest.size()) + " bytes"}));
}

TEST_F(TunnelRequest, IsReportedWithApplicationAndDestination) {
  make();

  startAndConnect();

  EXPECT_EQ(events(), std::vector{(EventFacts{.signal = "connect_handshake_started",
                                              .code = "extension.connect_handshake_started",
                                              .level = "info",
                                              .message = "Starting CONNECT handshake",
                                              .flowID = "FLOW",
                                              .context = {{{"app_id", "com.example.app"},
                                                           {"remote", "192.0.2.10:443"}}}})});
}

TEST_F(TunnelRequest, IsFollowedByAReadOfAtMost4096Bytes) {
  const auto connection = std::make_shared<ScriptedConnection>();
  connection->currentState = TCPConnectionState::connected;
  make({.connection = connection});
  tunnel_->start();
  ASSERT_EQ(connection->lastWritten(), kRequest);

  connection->completeWrite();

  EXPECT_EQ(connection->calls().back(), "read 1 4096");
}

TEST_F(TunnelRequest, ThatCannotBeWrittenClosesWithTheErrorAndReportsTheProxy) {
  make();
  proxy().failWrites(someError("Broken pipe"));

  startAndConnect();

  EXPECT_EQ(simulation_.logLines(LogLevel::error),
            Lines{"OstravelProxy: Error writing CONNECT: Broken pipe"});
  EXPECT_EQ(lineLoggedBefore("connect_handshake_write_failed"),
            "OstravelProxy: Error writing CONNECT: Broken pipe");
  EXPECT_EQ(events("connect_handshake_write_failed"),
            std::vector{(EventFacts{.signal = "connect_handshake_write_failed",
                                    .code = "extension.connect_handshake_write_failed",
                                    .level = "error",
                                    .message = "Failed to write CONNECT handshake",
                                    .flowID = "FLOW",
                                    .context = {{{"detail", "Broken pipe"}}}})});
  const auto lines = journal();
  EXPECT_EQ(
      Lines(lines.begin() + 3, lines.begin() + 10),
      (Lines{"connection 1: write failed: Broken pipe", "event connect_handshake_write_failed",
             "proxy unavailable", "event tunnel_closed", "flow 1: closeRead: Broken pipe",
             "flow 1: closeWrite: Broken pipe", "connection 1: cancel"}));
}

TEST_F(TunnelRequest, ThatFailsAfterTheTunnelIsGoneIsLoggedInTheDefaultLogOnly) {
  make();
  proxy().holdWrites();
  startAndConnect();
  tunnel_.reset();

  proxy().failWrites(someError("Broken pipe"));
  simulation_.run();

  ASSERT_EQ(simulation_.logLines(LogLevel::error),
            Lines{"OstravelProxy: Error writing CONNECT: Broken pipe"});
  EXPECT_EQ(simulation_.logRecords().back().subsystem, "");
  EXPECT_EQ(signals(), Lines{"connect_handshake_started"});
}

TEST_F(TunnelRequest, ThatIsWrittenAfterTheTunnelIsGoneIsNotFollowedByARead) {
  make();
  proxy().holdWrites();
  startAndConnect();
  tunnel_.reset();

  proxy().releaseWrites();
  simulation_.run();

  EXPECT_FALSE(proxy().readOutstanding());
  EXPECT_EQ(simulation_.logLines(LogLevel::error), Lines{});
}

// --- Answer

class TunnelAnswer : public TunnelTest {
 protected:
  void answer(std::string_view bytes) {
    make();
    startAndConnect();
    clearJournal();
    proxy().send(bytes);
    simulation_.run();
  }

  // The bytes are answered with a line in the log, this event, and an orderly close.
  void expectAnswerToFail(std::string_view bytes, const std::string& line,
                          const EventFacts& event) {
    answer(bytes);

    EXPECT_EQ(simulation_.logLines(LogLevel::error), Lines{line});
    EXPECT_EQ(lineLoggedBefore(event.signal), line);
    EXPECT_EQ(events(event.signal), std::vector{event});
    EXPECT_EQ(journal(), (Lines{"connection 1: read " + std::to_string(bytes.size()) + " bytes",
                                "event " + event.signal, "event tunnel_closed", "flow 1: closeRead",
                                "flow 1: closeWrite", "connection 1: cancel", "closed FLOW",
                                "connection 1: state cancelled"}));
  }

  // A connection whose request has been written and whose answer the test gives.
  std::shared_ptr<ScriptedConnection> sendRequest() {
    auto connection = std::make_shared<ScriptedConnection>();
    connection->currentState = TCPConnectionState::connected;
    make({.connection = connection});
    tunnel_->start();
    connection->completeWrite();
    return connection;
  }
};

TEST_F(TunnelAnswer, OfSuccessStartsBothDirectionsInThisOrder) {
  answer(kSuccess);

  EXPECT_EQ(journal(),
            (Lines{"connection 1: read 39 bytes", "established FLOW",
                   "event connect_handshake_succeeded", "flow 1: read", "connection 1: read"}));
}

TEST_F(TunnelAnswer, OfSuccessFinishesTheWatchdogBeforeItIsReported) {
  answer(kSuccess);

  EXPECT_EQ(watchdogSeen_, WatchdogState::finished);
}

TEST_F(TunnelAnswer, OfSuccessIsLoggedBeforeItIsReported) {
  answer(kSuccess);

  EXPECT_EQ(simulation_.logLines(LogLevel::info), Lines{"OstravelProxy: Handshake successful."});
  EXPECT_EQ(lineLoggedBefore("connect_handshake_succeeded"),
            "OstravelProxy: Handshake successful.");
}

TEST_F(TunnelAnswer, OfSuccessIsReportedWithDurationAndLeftover) {
  answer(kSuccess);

  EXPECT_EQ(events("connect_handshake_succeeded"),
            std::vector{(EventFacts{.signal = "connect_handshake_succeeded",
                                    .code = "extension.connect_handshake_succeeded",
                                    .level = "info",
                                    .message = "CONNECT handshake completed",
                                    .flowID = "FLOW",
                                    .metrics = {{{"elapsed_ms", 0.0}, {"leftover_bytes", 0.0}}},
                                    .context = {{{"app_id", "com.example.app"}}}})});
}

TEST_F(TunnelAnswer, OfSuccessIsTimedFromTheSendingOfTheRequest) {
  make();
  simulation_.advance(700ms);
  start();
  simulation_.advance(900ms);
  connection_->accept();
  simulation_.advance(125ms);

  proxy().send(kSuccess);
  simulation_.run();

  EXPECT_NEAR(records().back().metrics->at("elapsed_ms"), 125.0, 0.001);
}

TEST_F(TunnelAnswer, OfSuccessWithLeftoverDeliversItBeforeAnythingThatFollows) {
  make();
  startAndConnect();
  application().holdWrites();
  clearJournal();
  proxy().send(std::string(kSuccess) + "0123456789");
  simulation_.run();
  proxy().send("abc");
  simulation_.run();

  EXPECT_EQ(journal(),
            (Lines{"connection 1: read 49 bytes", "established FLOW",
                   "event connect_handshake_succeeded", "flow 1: read", "flow 1: write 10 bytes"}));
  EXPECT_EQ(records().back().metrics->at("leftover_bytes"), 10.0);

  clearJournal();
  application().releaseWrites();
  simulation_.run();

  EXPECT_EQ(journal(), (Lines{"flow 1: written", "connection 1: read", "connection 1: read 3 bytes",
                              "flow 1: write 3 bytes", "flow 1: written", "connection 1: read"}));
  EXPECT_EQ(application().received(), "0123456789abc");
}

TEST_F(TunnelAnswer, OfSuccessWithoutCallbacksWorksAsWell) {
  make({.withCallbacks = false});

  establish();
  proxy().endSending();
  simulation_.run();

  EXPECT_EQ(signals(),
            (Lines{"connect_handshake_started", "connect_handshake_succeeded", "tunnel_closed"}));
}

TEST_F(TunnelAnswer, MayComeInSingleBytes) {
  make();
  startAndConnect();

  for (const char byte : kSuccess) {
    ASSERT_EQ(signals(), Lines{"connect_handshake_started"});
    proxy().send(std::string(1, byte));
    simulation_.run();
  }

  EXPECT_EQ(signals().back(), "connect_handshake_succeeded");
}

TEST_F(TunnelAnswer, IsReadInChunksOfAtMost4096Bytes) {
  std::string header = "HTTP/1.1 200 OK\r\nPadding: ";
  header.resize(5000, 'x');

  answer(header + "\r\n\r\n");

  EXPECT_EQ(simulation_.journal().linesWith("connection 1: read "),
            (Lines{"connection 1: read 4096 bytes", "connection 1: read 908 bytes"}));
  EXPECT_EQ(signals().back(), "connect_handshake_succeeded");
}

TEST_F(TunnelAnswer, OfAnotherStatusIsRejectedAndClosesInOrder) {
  expectAnswerToFail(
      "HTTP/1.1 403 Forbidden\r\nVia: x\r\n\r\n",
      "OstravelProxy: Handshake failed (response status not 200)",
      {.signal = "connect_handshake_rejected",
       .code = "extension.connect_handshake_non_200",
       .level = "error",
       .message = "CONNECT handshake failed with non-200 status",
       .flowID = "FLOW",
       .context = {{{"app_id", "com.example.app"}, {"status_line", "HTTP/1.1 403 Forbidden"}}}});
}

TEST_F(TunnelAnswer, ThatIsMalformedIsInvalidAndClosesInOrder) {
  expectAnswerToFail(
      "\r\n\r\n", "OstravelProxy: Handshake failed (invalid response)",
      {.signal = "connect_handshake_invalid",
       .code = "extension.connect_handshake_invalid",
       .level = "error",
       .message = "CONNECT handshake response was invalid",
       .flowID = "FLOW",
       .context = {{{"app_id", "com.example.app"}, {"reason", "connect_status_line_missing"}}}});
}

TEST_F(TunnelAnswer, IsTooLargeFrom16385BytesOn) {
  answer(std::string(16384, 'x'));
  ASSERT_EQ(signals().back(), "connect_handshake_started");

  proxy().send("x");
  simulation_.run();

  EXPECT_EQ(events("connect_handshake_invalid").at(0).context->at("reason"),
            "connect_header_too_large");
}

TEST_F(TunnelAnswer, ThatCannotBeReadClosesWithTheErrorAndReportsTheProxy) {
  make();
  startAndConnect();
  clearJournal();

  proxy().failReads(someError("Read broke"));
  simulation_.run();

  EXPECT_EQ(events("connect_handshake_read_failed"),
            std::vector{(EventFacts{.signal = "connect_handshake_read_failed",
                                    .code = "extension.connect_handshake_read_failed",
                                    .level = "error",
                                    .message = "Failed to read CONNECT response",
                                    .flowID = "FLOW",
                                    .context = {{{"detail", "Read broke"}}}})});
  EXPECT_EQ(journal(),
            (Lines{"connection 1: read failed: Read broke", "event connect_handshake_read_failed",
                   "proxy unavailable", "event tunnel_closed", "flow 1: closeRead: Read broke",
                   "flow 1: closeWrite: Read broke", "connection 1: cancel", "closed FLOW",
                   "connection 1: state cancelled"}));
  EXPECT_EQ(simulation_.logLines(LogLevel::error), Lines{});
}

TEST_F(TunnelAnswer, WithAnErrorCountsAsTheErrorWhateverTheBytes) {
  const auto connection = sendRequest();

  connection->completeRead(kSuccess, someError("Read broke"));

  EXPECT_EQ(signals(),
            (Lines{"connect_handshake_started", "connect_handshake_read_failed", "tunnel_closed"}));
}

TEST_F(TunnelAnswer, IsMissingWhenTheProxyEndsTheStreamAndClosesInOrder) {
  make();
  startAndConnect();
  const auto logged = simulation_.logLines().size();
  clearJournal();

  proxy().endSending();
  simulation_.run();

  const auto lines = journal();
  EXPECT_EQ(Lines(lines.begin(), lines.begin() + 6),
            (Lines{"connection 1: read end", "event tunnel_closed", "flow 1: closeRead",
                   "flow 1: closeWrite", "connection 1: cancel", "closed FLOW"}));
  EXPECT_EQ(simulation_.logLines().size(), logged);
}

TEST_F(TunnelAnswer, OfNoBytesClosesInOrder) {
  make();
  startAndConnect();

  proxy().endSending(simulation::EndOfStream::emptyData);
  simulation_.run();

  EXPECT_EQ(signals(), (Lines{"connect_handshake_started", "tunnel_closed"}));
  EXPECT_EQ(records().back().context->at("detail"), "eof");
}

TEST_F(TunnelAnswer, AfterTheTunnelIsGoneDoesNothing) {
  make();
  startAndConnect();
  tunnel_.reset();
  clearJournal();

  proxy().send(kSuccess);
  simulation_.run();

  EXPECT_EQ(journal(), Lines{"connection 1: read 39 bytes"});
  EXPECT_EQ(simulation_.logLines(LogLevel::info), Lines{});
}

TEST_F(TunnelAnswer, OfSuccessAfterTheCloseIsReportedButStartsNoRelay) {
  const auto connection = sendRequest();
  tunnel_->close(std::nullopt);
  clearJournal();

  connection->completeRead(kSuccess);

  EXPECT_EQ(journal(), (Lines{"established FLOW", "event connect_handshake_succeeded"}));
  EXPECT_EQ(connection->calls().back(), "cancel");
}

TEST_F(TunnelAnswer, OfFailureAfterTheCloseIsReportedButClosesNothingAgain) {
  const auto connection = sendRequest();
  tunnel_->close(std::nullopt);
  clearJournal();

  connection->completeRead("HTTP/1.1 500 Oops\r\n\r\n");

  EXPECT_EQ(journal(), Lines{"event connect_handshake_rejected"});
}

TEST_F(TunnelAnswer, ThatFailsBecauseOfTheCloseIsReportedButReportsNoProxy) {
  make();
  startAndConnect();
  tunnel_->close(std::nullopt);
  clearJournal();

  simulation_.run();

  EXPECT_EQ(journal(),
            (Lines{"connection 1: read failed: Operation canceled",
                   "event connect_handshake_read_failed", "connection 1: state cancelled"}));
}

// --- Leftover

class TunnelLeftover : public TunnelTest {
 protected:
  // The leftover's write is outstanding.
  void SetUp() override {
    make();
    startAndConnect();
    application().holdWrites();
    proxy().send(std::string(kSuccess) + "left");
    simulation_.run();
    clearJournal();
  }
};

TEST_F(TunnelLeftover, ThatCannotBeDeliveredClosesWithTheErrorButReportsNoProxy) {
  application().failWrites(someError("App went away"));
  simulation_.run();

  EXPECT_EQ(simulation_.logLines(LogLevel::debug).at(0),
            "OstravelProxy: App write error: App went away");
  EXPECT_EQ(lineLoggedBefore("connect_handshake_leftover_write_failed"),
            "OstravelProxy: App write error: App went away");
  EXPECT_EQ(events("connect_handshake_leftover_write_failed"),
            std::vector{(EventFacts{.signal = "connect_handshake_leftover_write_failed",
                                    .code = "extension.connect_handshake_leftover_write_failed",
                                    .level = "error",
                                    .message = "Failed to forward CONNECT leftover bytes",
                                    .flowID = "FLOW",
                                    .context = {{{"detail", "App went away"}}}})});
  const auto lines = journal();
  EXPECT_EQ(
      Lines(lines.begin(), lines.begin() + 7),
      (Lines{"flow 1: write failed: App went away", "event connect_handshake_leftover_write_failed",
             "event tunnel_closed", "flow 1: closeRead: App went away",
             "flow 1: closeWrite: App went away", "connection 1: cancel", "closed FLOW"}));
}

class TunnelLeftoverByHand : public TunnelTest {};

TEST_F(TunnelLeftoverByHand, ThatIsDeliveredAfterTheCloseStartsNoRead) {
  const auto flow = std::make_shared<ScriptedFlow>();
  const auto connection = std::make_shared<ScriptedConnection>();
  connection->currentState = TCPConnectionState::connected;
  make({.flow = flow, .connection = connection});
  tunnel_->start();
  connection->completeWrite();
  connection->completeRead(std::string(kSuccess) + "left");
  ASSERT_EQ(flow->lastWritten(), "left");
  tunnel_->close(std::nullopt);

  flow->completeWrite();

  EXPECT_EQ(connection->calls().back(), "cancel");
  EXPECT_EQ(events("tunnel_closed").size(), 1U);
}

TEST_F(TunnelLeftover, ThatIsDeliveredAfterTheTunnelIsGoneDoesNothing) {
  tunnel_.reset();

  application().releaseWrites();
  simulation_.run();

  EXPECT_EQ(journal(), Lines{"flow 1: written"});
}

TEST_F(TunnelLeftover, ThatFailsAfterTheTunnelIsGoneDoesNothing) {
  tunnel_.reset();

  application().failWrites(someError());
  simulation_.run();

  EXPECT_EQ(journal(), Lines{"flow 1: write failed: Something broke"});
  EXPECT_EQ(simulation_.logLines(LogLevel::debug), Lines{});
}

// --- Watchdog

class TunnelTimeout : public TunnelTest {};

TEST_F(TunnelTimeout, CoversTheWaitForTheConnection) {
  make();
  start();

  simulation_.advance(5s - 1ns);
  EXPECT_EQ(signals(), Lines{});

  simulation_.advance(1ns);
  EXPECT_EQ(signals(), (Lines{"connect_handshake_timed_out", "tunnel_closed"}));
}

TEST_F(TunnelTimeout, CountsFromTheStartNotFromTheRequest) {
  make();
  start();
  simulation_.advance(4s);
  connection_->accept();

  simulation_.advance(1s);

  EXPECT_EQ(signals(), (Lines{"connect_handshake_started", "connect_handshake_timed_out",
                              "tunnel_closed", "connect_handshake_read_failed"}));
}

TEST_F(TunnelTimeout, IsLoggedReportedAndClosesWithItsError) {
  make({.handshakeTimeout = 2.5});
  start();

  simulation_.advance(3s);

  EXPECT_EQ(simulation_.logLines(), Lines{"OstravelProxy: CONNECT handshake timed out"});
  EXPECT_EQ(simulation_.logRecords()[0].level, LogLevel::error);
  EXPECT_EQ(lineLoggedBefore("connect_handshake_timed_out"),
            "OstravelProxy: CONNECT handshake timed out");
  EXPECT_EQ(
      events(),
      (std::vector{EventFacts{.signal = "connect_handshake_timed_out",
                              .code = "extension.connect_handshake_timed_out",
                              .level = "error",
                              .message = "CONNECT handshake timed out",
                              .flowID = "FLOW",
                              .metrics = {{{"timeout_seconds", 2.5}}},
                              .context = {{{"app_id", "com.example.app"}}}},
                   EventFacts{.signal = "tunnel_closed",
                              .code = "extension.tunnel_closed",
                              .level = "error",
                              .message = "Tunnel closed with error",
                              .flowID = "FLOW",
                              .context = {{{"app_id", "com.example.app"},
                                           {"detail", "Proxy CONNECT handshake timed out"}}}}}));
  EXPECT_EQ(flow_->readCloseError(),
            (platform::Error{"OstravelProxy", 1002, "Proxy CONNECT handshake timed out"}));
}

TEST_F(TunnelTimeout, IsReportedWithTheConfiguredSecondsHoweverLateItComes) {
  make({.handshakeTimeout = 2.5});
  start();
  simulation_.advance(2400ms);
  simulation_.post([this] { simulation_.spend(1s); });

  simulation_.run();

  EXPECT_EQ(records().at(0).signal, "connect_handshake_timed_out");
  EXPECT_EQ(records()[0].timestamp, simulation::SimulatedClock::kStart + 3.4);
  EXPECT_EQ(records()[0].metrics->at("timeout_seconds"), 2.5);
}

TEST_F(TunnelTimeout, ReportsTheProxyBeforeTheClose) {
  make();
  start();

  simulation_.advance(5s);

  EXPECT_TRUE(simulation_.journal().inOrder("proxy unavailable", "event tunnel_closed"));
  EXPECT_EQ(watchdogSeen_, WatchdogState::finished);
}

TEST_F(TunnelTimeout, NeverComesAfterSuccess) {
  make();
  start();
  connection_->accept();
  simulation_.advance(5s - 1ns);
  proxy().send(kSuccess);
  simulation_.run();

  simulation_.advance(1h);

  EXPECT_EQ(signals(), (Lines{"connect_handshake_started", "connect_handshake_succeeded"}));
}

TEST_F(TunnelTimeout, NeverComesAfterAClose) {
  make();
  start();
  simulation_.advance(5s - 1ns);
  tunnel_->close(std::nullopt);

  simulation_.advance(1h);

  EXPECT_EQ(signals(), Lines{"tunnel_closed"});
}

TEST_F(TunnelTimeout, NeverComesOnceTheTunnelIsGone) {
  make();
  start();
  tunnel_.reset();

  simulation_.advance(1h);

  EXPECT_EQ(signals(), Lines{});
  EXPECT_EQ(simulation_.logLines(), Lines{});
}

TEST_F(TunnelTimeout, BelongsToOneWatchdog) {
  make();

  EXPECT_EQ(tunnel_->handshakeWatchdog(), tunnel_->handshakeWatchdog());
}

// A machine may have thousands of idle ones.
TEST_F(TunnelTimeout, ATunnelKeepsLittle) {
  EXPECT_LE(sizeof(OVTunnelConnection), 13 * sizeof(void*));
}

TEST_F(TunnelTimeout, HoldsNoWatchdogAfterTheHandshake) {
  make();
  startAndConnect();
  const std::weak_ptr<ProxyTunnelHandshakeWatchdog> watchdog = tunnel_->handshakeWatchdog();
  EXPECT_EQ(PacketTunnelProviderTestPeer::stateOf(*watchdog.lock()), WatchdogState::running);

  proxy().send(kSuccess);
  simulation_.run();

  EXPECT_TRUE(watchdog.expired());
}

// A close on another thread may have seen a handshake that is over when it asks for the watchdog.
TEST_F(TunnelTimeout, HasAnIdleWatchdogAfterTheHandshake) {
  make();
  establish();

  EXPECT_EQ(watchdogState(), WatchdogState::idle);
}

}  // namespace
}  // namespace ostravel
