// Whole flows in each of the ways in which a Mac may behave.

#include "Tests/StandInMac/SystemBehaviour.h"

#include <cerrno>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#import "Tests/Platform/macOS/Provider/WholeFlow.h"
#include "Tests/StandInMac/WorkerPool.h"

namespace ostravel::macos::test {
namespace {

using standin::BehaviourScope;
using standin::RefusedConnection;
using standin::ReleasedFlow;
using standin::SystemBehaviour;

struct Mode {
  std::string name;
  SystemBehaviour behaviour;
};

std::ostream& operator<<(std::ostream& stream, const Mode& mode) {
  return stream << mode.name;
}

// A base class, so that it is constructed before the provider and destroyed after it.
class ModeScope : public ::testing::WithParamInterface<Mode> {
 private:
  const BehaviourScope scope_{GetParam().behaviour};
};

class SystemBehaviourTest : public ModeScope, public CompanionFlowTest {
 protected:
  static ReleasedFlow releasedFlow() { return GetParam().behaviour.releasedFlow; }

  // A flow that has carried a byte.
  OfferedFlow offerEstablished(const TestListener& origin, std::optional<TestSocket>& connection) {
    auto flow = offerTCPTo(origin);
    EXPECT_TRUE(flow.wasTaken);
    flow.application.send("x");
    connection.emplace(origin.accept());
    EXPECT_EQ(connection->receive(1), "x");
    return flow;
  }
};

TEST_P(SystemBehaviourTest, AFlowIsCarriedUntilTheApplicationEnds) {
  const TestListener origin;
  std::optional<TestSocket> connection;
  const auto flow = offerEstablished(origin, connection);
  connection->send("pong");
  EXPECT_EQ(flow.application.receive(4), "pong");
  flow.application.endSending();
  EXPECT_EQ(connection->receiveToEnd(), "");
  EXPECT_EQ(flow.application.waitForEnd(), TestSocket::End::orderly);
  EXPECT_NE(awaitEvent("tunnel_closed").find("\"detail\":\"eof\""), std::string::npos);
}

TEST_P(SystemBehaviourTest, AFlowIsCarriedUntilTheOriginEnds) {
  const TestListener origin;
  std::optional<TestSocket> connection;
  const auto flow = offerEstablished(origin, connection);
  connection->send("pong");
  connection.reset();
  EXPECT_EQ(flow.application.receiveToEnd(), "pong");
}

TEST_P(SystemBehaviourTest, TheProxysConnectionEndsWithTheTunnel) {
  const TestListener origin;
  std::optional<TestSocket> connection;
  const auto flow = offerEstablished(origin, connection);
  provider_.stop();
  connection->receiveToEnd();
  if (releasedFlow() != ReleasedFlow::stays) {
    flow.application.waitForEnd();
  }
  EXPECT_FALSE(flow.record->wasLeftToSystem());
}

TEST_P(SystemBehaviourTest, ASecondStartChangesNothing) {
  provider_.startUp();
  const TestListener origin;
  std::optional<TestSocket> connection;
  const auto flow = offerEstablished(origin, connection);
  EXPECT_EQ(standin::appliedSettings(provider_.get()).size(), 1U);
}

TEST_P(SystemBehaviourTest, AFlowThatIsNotTakenContinuesWithoutTheProvider) {
  const auto flow = offerTCP({.signingIdentifier = @"com.apple.trustd",
                              .endpoint = standin::makeHostEndpoint(@"192.0.2.1", @"443")});
  EXPECT_FALSE(flow.wasTaken);
  EXPECT_TRUE(waitUntil([&flow] { return flow.record->wasLeftToSystem(); }));
}

// A flow that was taken and whose provider is destroyed before it opens: nothing closes it.
TEST_P(SystemBehaviourTest, ATakenFlowEndsAsTheSystemDecides) {
  const auto flow = outliveProvider();
  const auto& record = flow.record;
  switch (releasedFlow()) {
    case ReleasedFlow::resets:
      EXPECT_EQ(flow.application.waitForEnd(), TestSocket::End::reset);
      break;
    case ReleasedFlow::stays:
      standin::settleWorkers();
      break;
    case ReleasedFlow::isHandedBack:
      EXPECT_TRUE(waitUntil([&record] { return record->wasLeftToSystem(); }));
      break;
  }
  EXPECT_FALSE(record->isReadClosed());
  EXPECT_EQ(record->wasLeftToSystem(), releasedFlow() == ReleasedFlow::isHandedBack);
}

INSTANTIATE_TEST_SUITE_P(
    EachMode, SystemBehaviourTest,
    ::testing::Values(
        Mode{"Usual", {}}, Mode{"SettingsAnsweredInside", {.answersSettingsInsideTheCall = true}},
        Mode{"RepeatedSettingsCrash", {.crashesOnRepeatedSettings = true}},
        Mode{"CancelNotifiesInside", {.notifiesInsideCancel = true}},
        Mode{"NothingClosesOnRelease",
             {.closesReleasedConnections = false, .releasedFlow = ReleasedFlow::stays}},
        Mode{"TakenFlowIsHandedBack", {.releasedFlow = ReleasedFlow::isHandedBack}},
        Mode{"AllAtOnce",
             {.answersSettingsInsideTheCall = true,
              .crashesOnRepeatedSettings = true,
              .notifiesInsideCancel = true,
              .closesReleasedConnections = false,
              .releasedFlow = ReleasedFlow::stays}}),
    [](const auto& tested) { return tested.param.name; });

// A proxy that ends between the last probe and the connection of a flow.
class RefusedConnectionTest : public ScriptedProxyTest {};

TEST_F(RefusedConnectionTest, ADisconnectionEndsTheFlowAtOnce) {
  const BehaviourScope behaviour({.refusesConnections = true});
  const auto flow = offerTCP("192.0.2.1", 443);
  ASSERT_TRUE(flow.wasTaken);
  EXPECT_EQ(flow.application.waitForEnd(), TestSocket::End::reset);
  const auto error = closeError(flow);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, ECONNREFUSED);
  EXPECT_EQ([flow.record->closeWriteError() code], NEAppProxyFlowErrorRefused);
  // A probe of this moment finds the proxy again, until the next flow does not.
  EXPECT_TRUE(waitUntil([this] { return !offerTCP("192.0.2.1", 443).wasTaken; }));
}

TEST_F(RefusedConnectionTest, AWaitEndsAtTheHandshakeLimit) {
  for (const bool notifiesInside : {false, true}) {
    const BehaviourScope behaviour({.refusedConnection = RefusedConnection::waits,
                                    .refusesConnections = true,
                                    .notifiesInsideCancel = notifiesInside});
    // The probe after the previous round's handshake limit opens the gate again.
    std::optional<OfferedFlow> flow;
    ASSERT_TRUE(waitUntil([&] {
      flow.emplace(offerTCP("192.0.2.1", 443));
      return flow->wasTaken;
    }));
    EXPECT_EQ(flow->application.waitForEnd(), TestSocket::End::reset);
    EXPECT_EQ(closeError(*flow),
              (platform::Error{"OstravelProxy", 1002, "Proxy CONNECT handshake timed out"}));
  }
}

}  // namespace
}  // namespace ostravel::macos::test
