#include "Platform/Interface/FlowObserver.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Extension/FilterDataProvider/OVTunnelConnection.h"
#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Platform/Interface/AppProxyUDPFlow.h"
#include "Tests/Extension/Support/ProviderTest.h"
#include "Tests/Extension/Support/ScriptedFlow.h"
#include "Tests/Extension/Support/TunnelTest.h"

namespace ostravel {
namespace {

using platform::FlowEnd;
using platform::FlowRule;
using platform::HostEndpoint;
using test::ScriptedFlow;
using test::someError;
using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

std::string_view nameOf(FlowEnd end) {
  constexpr std::string_view kNames[] = {
      "closed",  "failed",    "rejected",       "invalid",           "timed out",
      "backlog", "no answer", "request failed", "connection failed", "abandoned"};
  return kNames[static_cast<std::size_t>(end)];
}

// Records what it is notified of; of several ends, the first.
class NotingObserver final : public platform::FlowObserver {
 public:
  void decided(FlowRule rule) override { rules.push_back(rule); }
  void identified(const std::string& flowID) override { identifier = flowID; }
  void handshakeStarted() override { lines.emplace_back("started"); }
  void handshakeSucceeded() override { lines.emplace_back("succeeded"); }
  void ended(FlowEnd end, std::string_view detail) override {
    if (!hasEnded_) {
      hasEnded_ = true;
      lines.push_back(std::string(nameOf(end)) + " \"" + std::string(detail) + "\"");
    }
  }

  std::vector<FlowRule> rules;
  std::string identifier;
  Lines lines;

 private:
  bool hasEnded_ = false;
};

class ObservedDatagrams final : public platform::AppProxyUDPFlow {
 public:
  explicit ObservedDatagrams(platform::FlowObserver& observer) : observer_(observer) {}

  std::string sourceAppSigningIdentifier() const override { return "com.example.app"; }
  std::optional<HostEndpoint> localEndpoint() const override {
    return HostEndpoint{"example.org", "443"};
  }
  platform::FlowObserver* observer() override { return &observer_; }
  void closeRead(platform::OptionalError /*error*/) override {}
  void closeWrite(platform::OptionalError /*error*/) override {}

 private:
  platform::FlowObserver& observer_;
};

// The provider is started and the gate open.
class DecisionObservation : public test::ProviderTest {
 protected:
  void SetUp() override { startProvider(); }

  Lines linesAfter(const std::shared_ptr<ScriptedFlow>& flow) {
    provider_->handleNewFlow(flow);
    simulation_.run();
    return observer_.lines;
  }
  std::vector<FlowRule> rulesFor(const std::string& appId, const HostEndpoint& remote) {
    linesAfter(flowOf(appId, remote));
    return observer_.rules;
  }
  std::shared_ptr<ScriptedFlow> flowOf(const std::string& appId, const HostEndpoint& remote) {
    return std::make_shared<ScriptedFlow>(appId, remote, &observer_);
  }

  NotingObserver observer_;
  const HostEndpoint kOrdinary{"example.org", "443"};
  const std::string kApplication = "com.example.app";
};

TEST_F(DecisionObservation, NamesTheRuleOfAFlowThatIsCarried) {
  EXPECT_EQ(rulesFor(kApplication, kOrdinary), std::vector{FlowRule::proxied});
  EXPECT_FALSE(observer_.identifier.empty());
}

TEST_F(DecisionObservation, NamesTheListThatExemptsAFlow) {
  EXPECT_EQ(rulesFor(" com.mullvad.vpn ", kOrdinary), std::vector{FlowRule::exemptApplication});
  observer_.rules.clear();
  EXPECT_EQ(rulesFor(kApplication, {"www.digicert.com", "443"}), std::vector{FlowRule::exemptHost});
}

TEST_F(DecisionObservation, NamesTheGateUnlessAListWouldHaveExempted) {
  peer().probe();
  sockets().proxyListening(false);
  peer().probe();
  EXPECT_EQ(rulesFor(kApplication, kOrdinary), std::vector{FlowRule::gateClosed});
  observer_.rules.clear();
  EXPECT_EQ(rulesFor("com.mullvad.vpn", kOrdinary), std::vector{FlowRule::exemptApplication});
}

TEST_F(DecisionObservation, NamesTheSameRuleForARememberedDecision) {
  peer().probe();
  for (const bool isListening : {true, false, true}) {
    sockets().proxyListening(isListening);
    peer().probe();
    observer_.rules.clear();
    rulesFor("com.mullvad.vpn", kOrdinary);
    EXPECT_EQ(rulesFor(kApplication, kOrdinary),
              (std::vector{FlowRule::exemptApplication,
                           isListening ? FlowRule::proxied : FlowRule::gateClosed}));
  }
  EXPECT_EQ(peer().cacheSize(), 2U);
}

TEST_F(DecisionObservation, NamesTheProxyAsTheDestination) {
  EXPECT_EQ(rulesFor(kApplication, {"127.0.0.1", "8080"}), std::vector{FlowRule::localProxy});
  EXPECT_EQ(observer_.lines, Lines{});
}

TEST_F(DecisionObservation, NamesTheRefusalOfUDP) {
  EXPECT_TRUE(provider_->handleNewFlow(std::make_shared<ObservedDatagrams>(observer_)));
  EXPECT_EQ(observer_.rules, std::vector{FlowRule::refusedUDP});
}

TEST_F(DecisionObservation, SaysThatAFlowCannotBeOpened) {
  const auto flow = flowOf(kApplication, kOrdinary);
  flow->failOpen(someError());
  EXPECT_EQ(linesAfter(flow), Lines{"abandoned \"Something broke\""});
}

TEST_F(DecisionObservation, SaysThatTooManyHandshakesArePending) {
  peer().occupyHandshakeSlots(48);
  EXPECT_EQ(linesAfter(flowOf(kApplication, kOrdinary)),
            Lines{"backlog \"Proxy handshake backlog exceeded\""});
}

TEST_F(DecisionObservation, ExplainsWithoutRemembering) {
  EXPECT_EQ(provider_->explain(kApplication, kOrdinary, false), FlowRule::proxied);
  EXPECT_EQ(provider_->explain(kApplication, kOrdinary, true), FlowRule::refusedUDP);
  EXPECT_EQ(provider_->explain(kApplication, {"zoom.us", "443"}, true), FlowRule::realtimeMedia);
  EXPECT_EQ(provider_->explain(kApplication, {"127.0.0.1", "8080"}, false), FlowRule::localProxy);
  EXPECT_EQ(provider_->explain(" com.mullvad.vpn", kOrdinary, false), FlowRule::exemptApplication);
  EXPECT_EQ(peer().cacheSize(), 0U);
}

TEST_F(DecisionObservation, ExplainsAClosedGate) {
  sockets().proxyListening(false);
  peer().probe();
  EXPECT_EQ(provider_->explain(kApplication, kOrdinary, false), FlowRule::gateClosed);
}

class TunnelObservationOfFlow : public test::TunnelTest {
 protected:
  void SetUp() override { make({.flow = scripted_}); }
  // The tunnel owns the flow, and an outstanding read owns the tunnel.
  void TearDown() override { scripted_->dropOutstanding(); }

  Lines linesAfterAnswer(std::string_view answer) {
    startAndConnect();
    proxy().send(answer);
    simulation_.run();
    return observer_.lines;
  }

  NotingObserver observer_;
  const std::shared_ptr<ScriptedFlow> scripted_ = std::make_shared<ScriptedFlow>(
      "com.example.app", HostEndpoint{"192.0.2.10", "443"}, &observer_);
};

TEST_F(TunnelObservationOfFlow, NotesTheStepsOfATunnel) {
  establish();
  tunnel_->close(std::nullopt);
  EXPECT_EQ(observer_.lines, (Lines{"started", "succeeded", "closed \"eof\""}));
}

TEST_F(TunnelObservationOfFlow, NotesAnErrorOfAnEstablishedTunnel) {
  establish();
  tunnel_->close(someError());
  EXPECT_EQ(observer_.lines, (Lines{"started", "succeeded", "failed \"Something broke\""}));
}

TEST_F(TunnelObservationOfFlow, NotesARejectionWithItsStatusLine) {
  EXPECT_EQ(linesAfterAnswer("HTTP/1.1 403 Forbidden\r\n\r\n"),
            (Lines{"started", "rejected \"HTTP/1.1 403 Forbidden\""}));
}

TEST_F(TunnelObservationOfFlow, NotesAnInvalidAnswer) {
  EXPECT_EQ(linesAfterAnswer("\xff\xfe\r\n\r\n"),
            (Lines{"started", "invalid \"connect_header_not_utf8\""}));
}

TEST_F(TunnelObservationOfFlow, NotesAProxyThatEndsWithoutAnAnswer) {
  startAndConnect();
  proxy().endSending();
  simulation_.run();
  EXPECT_EQ(observer_.lines, (Lines{"started", "no answer \"\""}));
}

TEST_F(TunnelObservationOfFlow, NotesAConnectionThatFails) {
  start();
  tunnel_->close(someError());
  EXPECT_EQ(observer_.lines, Lines{"connection failed \"Something broke\""});
}

TEST_F(TunnelObservationOfFlow, NotesARequestThatCannotBeSent) {
  proxy().failWrites(someError());
  startAndConnect();
  EXPECT_EQ(observer_.lines, (Lines{"started", "request failed \"Something broke\""}));
}

TEST_F(TunnelObservationOfFlow, NotesATimeout) {
  startAndConnect();
  simulation_.advance(6s);
  EXPECT_EQ(observer_.lines, (Lines{"started", "timed out \"Proxy CONNECT handshake timed out\""}));
}

TEST_F(TunnelObservationOfFlow, NotesATunnelThatIsGivenUp) {
  start();
  tunnel_->close(std::nullopt);
  EXPECT_EQ(observer_.lines, Lines{"abandoned \"\""});
}

}  // namespace
}  // namespace ostravel
