#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Extension/FilterDataProvider/OVTunnelConnection.h"
#include "Tests/Extension/Support/ScriptedConnection.h"
#include "Tests/Extension/Support/ScriptedFlow.h"
#include "Tests/Extension/Support/TunnelTest.h"

namespace ostravel {
namespace {

using platform::LogLevel;
using platform::TCPConnectionState;
using simulation::EndOfStream;
using test::ScriptedConnection;
using test::ScriptedFlow;
using test::someError;
using test::TunnelTest;

using Lines = std::vector<std::string>;

class TunnelRelay : public TunnelTest {
 protected:
  void SetUp() override {
    make();
    establish();
    clearJournal();
  }

  std::string sentToProxy() { return proxy().received().substr(kRequest.size()); }

  void expectClosedInOrder() {
    EXPECT_EQ(events("tunnel_closed").size(), 1U);
    EXPECT_EQ(records().back().level, "info");
    EXPECT_EQ(records().back().message, "Tunnel closed");
    EXPECT_EQ(records().back().context->at("detail"), "eof");
    // What fails because of the close is logged after it; nothing is logged before.
    EXPECT_EQ(lineLoggedBefore("tunnel_closed"), "OstravelProxy: Handshake successful.");
  }

  void expectClosedWith(const platform::Error& error, const std::string& line) {
    EXPECT_EQ(events("tunnel_closed").size(), 1U);
    EXPECT_EQ(records().back().level, "error");
    EXPECT_EQ(records().back().message, "Tunnel closed with error");
    EXPECT_EQ(records().back().context->at("detail"), error.localizedDescription);
    EXPECT_EQ(simulation_.logLines(LogLevel::debug).at(0), line);
    EXPECT_EQ(lineLoggedBefore("tunnel_closed"), line);
    EXPECT_EQ(flow_->readCloseError(), error);
    EXPECT_EQ(flow_->writeCloseError(), error);
    EXPECT_TRUE(connection_->wasCancelled());
    EXPECT_EQ(simulation_.journal().linesWith("proxy unavailable"), Lines{});
  }
};

TEST_F(TunnelRelay, CarriesTheApplicationsBytesToTheProxy) {
  application().send("hello");
  simulation_.run();

  EXPECT_EQ(journal(), (Lines{"flow 1: read 5 bytes", "connection 1: write 5 bytes",
                              "connection 1: written", "flow 1: read"}));
  EXPECT_EQ(sentToProxy(), "hello");
}

TEST_F(TunnelRelay, CarriesTheProxysBytesToTheApplication) {
  proxy().send("world");
  simulation_.run();

  EXPECT_EQ(journal(), (Lines{"connection 1: read 5 bytes", "flow 1: write 5 bytes",
                              "flow 1: written", "connection 1: read"}));
  EXPECT_EQ(application().received(), "world");
}

TEST_F(TunnelRelay, CarriesBothWaysIndependently) {
  proxy().holdWrites();
  application().send("stuck");
  simulation_.run();

  proxy().send("moves");
  simulation_.run();

  EXPECT_EQ(application().received(), "moves");
  EXPECT_EQ(sentToProxy(), "");
}

TEST_F(TunnelRelay, DoesNotReadFromTheApplicationWhileItsBytesAreBeingWritten) {
  proxy().holdWrites();
  application().send("one");
  simulation_.run();
  application().send("two");
  simulation_.run();
  EXPECT_FALSE(application().readOutstanding());

  proxy().releaseWrites();
  simulation_.run();

  EXPECT_EQ(sentToProxy(), "onetwo");
  EXPECT_TRUE(application().readOutstanding());
}

TEST_F(TunnelRelay, DoesNotReadFromTheProxyWhileItsBytesAreBeingWritten) {
  application().holdWrites();
  proxy().send("one");
  simulation_.run();
  proxy().send("two");
  simulation_.run();
  EXPECT_FALSE(proxy().readOutstanding());

  application().releaseWrites();
  simulation_.run();

  EXPECT_EQ(application().received(), "onetwo");
  EXPECT_TRUE(proxy().readOutstanding());
}

TEST_F(TunnelRelay, ReadsAtMost524288BytesFromTheProxy) {
  proxy().send(std::string(600000, 'x'));
  simulation_.run();

  EXPECT_EQ(simulation_.journal().linesWith("connection 1: read "),
            (Lines{"connection 1: read 524288 bytes", "connection 1: read 75712 bytes"}));
}

TEST_F(TunnelRelay, ClosesInOrderAtTheEndOfTheApplicationsStream) {
  application().send("last");
  application().endSending(EndOfStream::absentData);
  simulation_.run();

  expectClosedInOrder();
  EXPECT_EQ(sentToProxy(), "last");
}

TEST_F(TunnelRelay, ClosesInOrderOnEmptyDataFromTheApplication) {
  application().endSending(EndOfStream::emptyData);
  simulation_.run();

  expectClosedInOrder();
}

TEST_F(TunnelRelay, ClosesInOrderAtTheEndOfTheProxysStream) {
  proxy().send("last");
  proxy().endSending(EndOfStream::absentData);
  simulation_.run();

  expectClosedInOrder();
  EXPECT_EQ(application().received(), "last");
}

TEST_F(TunnelRelay, ClosesInOrderOnEmptyDataFromTheProxy) {
  proxy().endSending(EndOfStream::emptyData);
  simulation_.run();

  expectClosedInOrder();
}

TEST_F(TunnelRelay, HasNoHalfClose) {
  application().endSending();
  simulation_.run();

  EXPECT_TRUE(application().sawEnd());
  EXPECT_TRUE(proxy().sawEnd());
  EXPECT_TRUE(flow_->readWasClosed());
  EXPECT_TRUE(flow_->writeWasClosed());
  EXPECT_TRUE(connection_->wasCancelled());
}

TEST_F(TunnelRelay, ClosesWithAFailureToReadFromTheApplication) {
  application().failReads(someError("App read"));
  simulation_.run();

  expectClosedWith(someError("App read"), "OstravelProxy: App read error: App read");
}

TEST_F(TunnelRelay, ClosesWithAFailureToWriteToTheProxy) {
  proxy().failWrites(someError("Proxy write"));
  application().send("x");
  simulation_.run();

  expectClosedWith(someError("Proxy write"), "OstravelProxy: Proxy write error: Proxy write");
}

TEST_F(TunnelRelay, ClosesWithAFailureToReadFromTheProxy) {
  proxy().failReads(someError("Proxy read"));
  simulation_.run();

  expectClosedWith(someError("Proxy read"), "OstravelProxy: Proxy read error: Proxy read");
}

TEST_F(TunnelRelay, ClosesWithAFailureToWriteToTheApplication) {
  application().failWrites(someError("App write"));
  proxy().send("x");
  simulation_.run();

  expectClosedWith(someError("App write"), "OstravelProxy: App write error: App write");
}

TEST_F(TunnelRelay, ShowsAResetToTheApplication) {
  proxy().failReads(someError());
  simulation_.run();

  EXPECT_TRUE(application().sawReset());
}

TEST_F(TunnelRelay, LogsAsItsOwnSubsystemAndCategory) {
  application().failReads(someError("App read"));
  simulation_.run();

  for (const auto& record : simulation_.logRecords()) {
    EXPECT_EQ(record.subsystem, "com.ostravel.simulation");
    EXPECT_EQ(record.category, "OstravelProxy");
  }
}

TEST_F(TunnelRelay, DoesNothingWithAReadThatEndsAfterTheTunnelIsGone) {
  tunnel_.reset();

  application().send("x");
  proxy().send("y");
  simulation_.run();

  EXPECT_EQ(journal(), (Lines{"flow 1: read 1 byte", "connection 1: read 1 byte"}));
}

TEST_F(TunnelRelay, DoesNothingWithAReadThatFailsAfterTheTunnelIsGone) {
  tunnel_.reset();

  application().failReads(someError());
  proxy().failReads(someError());
  simulation_.run();

  EXPECT_EQ(simulation_.logLines(LogLevel::debug), Lines{});
  EXPECT_EQ(events("tunnel_closed").size(), 0U);
}

TEST_F(TunnelRelay, IsKeptAliveByItsWriteToTheProxy) {
  const std::weak_ptr<OVTunnelConnection> weakTunnel = tunnel_;
  proxy().holdWrites();
  application().send("x");
  simulation_.run();

  tunnel_.reset();
  EXPECT_FALSE(weakTunnel.expired());

  proxy().failWrites(someError("Proxy write"));
  simulation_.run();
  EXPECT_TRUE(weakTunnel.expired());
  EXPECT_EQ(records().back().context->at("detail"), "Proxy write");
}

TEST_F(TunnelRelay, IsKeptAliveByItsWriteToTheApplication) {
  const std::weak_ptr<OVTunnelConnection> weakTunnel = tunnel_;
  application().holdWrites();
  proxy().send("x");
  simulation_.run();

  tunnel_.reset();
  EXPECT_FALSE(weakTunnel.expired());

  application().failWrites(someError("App write"));
  simulation_.run();
  EXPECT_TRUE(weakTunnel.expired());
  EXPECT_EQ(records().back().context->at("detail"), "App write");
}

TEST_F(TunnelRelay, IsNotKeptAliveByItsReads) {
  const std::weak_ptr<OVTunnelConnection> weakTunnel = tunnel_;
  ASSERT_TRUE(application().readOutstanding());
  ASSERT_TRUE(proxy().readOutstanding());

  tunnel_.reset();

  EXPECT_TRUE(weakTunnel.expired());
}

// With completions that the test runs at will.
class TunnelRelayByHand : public TunnelTest {
 protected:
  void SetUp() override {
    proxySide_->currentState = TCPConnectionState::connected;
    make({.flow = appSide_, .connection = proxySide_});
    tunnel_->start();
    proxySide_->completeWrite();
    proxySide_->completeRead(kSuccess);
    clearJournal();
  }
  void TearDown() override {
    appSide_->dropOutstanding();
    proxySide_->dropOutstanding();
  }

  const std::shared_ptr<ScriptedFlow> appSide_ = std::make_shared<ScriptedFlow>();
  const std::shared_ptr<ScriptedConnection> proxySide_ = std::make_shared<ScriptedConnection>();
};

TEST_F(TunnelRelayByHand, AsksTheProxyForOneByteAtLeastAnd524288AtMost) {
  EXPECT_EQ(proxySide_->calls().back(), "read 1 524288");
}

TEST_F(TunnelRelayByHand, StillWritesToTheAppWhatAReadDeliversAfterTheClose) {
  tunnel_->close(std::nullopt);

  proxySide_->completeRead("late");

  EXPECT_EQ(appSide_->lastWritten(), "late");
  EXPECT_EQ(events("tunnel_closed").size(), 1U);
}

TEST_F(TunnelRelayByHand, StillWritesToTheProxyWhatAReadDeliversAfterTheClose) {
  tunnel_->close(std::nullopt);

  appSide_->completeRead("late");

  EXPECT_EQ(proxySide_->lastWritten(), "late");
  EXPECT_EQ(events("tunnel_closed").size(), 1U);
}

TEST_F(TunnelRelayByHand, ReadsNoMoreFromTheAppAfterAWriteThatEndsAfterTheClose) {
  appSide_->completeRead("x");
  ASSERT_TRUE(proxySide_->writeOutstanding());
  tunnel_->close(std::nullopt);

  proxySide_->completeWrite();

  EXPECT_FALSE(appSide_->readOutstanding());
  EXPECT_EQ(appSide_->callsOf("read"), 1);
  EXPECT_EQ(events("tunnel_closed").size(), 1U);
}

TEST_F(TunnelRelayByHand, ReadsNoMoreFromTheProxyAfterAWriteThatEndsAfterTheClose) {
  proxySide_->completeRead("y");
  ASSERT_TRUE(appSide_->writeOutstanding());
  tunnel_->close(std::nullopt);

  appSide_->completeWrite();

  EXPECT_FALSE(proxySide_->readOutstanding());
  EXPECT_EQ(proxySide_->callsOf("read 1 524288"), 1);
  EXPECT_EQ(events("tunnel_closed").size(), 1U);
}

TEST_F(TunnelRelayByHand, ClosesWithTheErrorWhateverTheBytes) {
  proxySide_->completeRead("data", someError("Proxy read"));

  EXPECT_EQ(appSide_->callsOf("write 4"), 0);
  EXPECT_EQ(records().back().context->at("detail"), "Proxy read");
}

}  // namespace
}  // namespace ostravel
