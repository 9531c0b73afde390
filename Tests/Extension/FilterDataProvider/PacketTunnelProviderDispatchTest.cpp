#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Extension/FilterDataProvider/BuiltInLists.h"
#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Tests/Extension/Support/NotingPlatform.h"
#include "Tests/Extension/Support/ProviderTest.h"

namespace ostravel {
namespace {

using platform::Error;
using platform::HostEndpoint;
using platform::LogLevel;
using platform::OptionalError;
using test::EventFacts;
using test::NotingPlatform;
using test::ProviderTest;
using FlowAction = PacketTunnelProvider::FlowAction;
using namespace std::chrono_literals;

using Lines = std::vector<std::string>;

constexpr std::size_t kMaxPending = 48;
const Error kOpenError{"NEDomain", 3, "Flow is gone"};

// The provider is started and the gate open.
class FlowDispatch : public ProviderTest {
 protected:
  void SetUp() override {
    startProvider();
    simulation_.journal().clear();
  }

  bool handle(std::shared_ptr<platform::AppProxyFlow> flow) {
    const bool taken = provider_->handleNewFlow(std::move(flow));
    simulation_.run();
    return taken;
  }

  void takeFlows(std::size_t count) {
    for (std::size_t number = 0; number < count; ++number) {
      takeFlow();
    }
  }

  // The identifier that the request to the proxy carries.
  std::string flowIdOf(std::size_t connection) {
    constexpr std::string_view kHeader = "X-Ostravel-Flow-Id: ";
    const std::string& request = simulation_.peer(connection)->received();
    const auto start = request.find(kHeader) + kHeader.size();
    return request.substr(start, request.find("\r\n", start) - start);
  }
};

// --- The decision carried out

TEST_F(FlowDispatch, LeavesABypassedFlowToTheSystem) {
  const auto flow = makeFlow("com.apple.trustd");

  EXPECT_FALSE(handle(flow));

  EXPECT_FALSE(flow->openWasRequested());
  EXPECT_EQ(simulation_.journal().lines(), Lines{});
}

TEST_F(FlowDispatch, TakesAProxiedFlowAndReturnsBeforeItIsOpen) {
  const auto flow = makeFlow();

  EXPECT_TRUE(provider_->handleNewFlow(flow));

  EXPECT_EQ(simulation_.journal().lines(), Lines{"flow 1: open"});
  EXPECT_EQ(flow->requestedLocalEndpoint(), std::nullopt);
  EXPECT_EQ(simulation_.connectionCount(), 0U);
}

TEST_F(FlowDispatch, ClosesADroppedUDPFlowInBothDirectionsWithoutAnError) {
  const auto flow = simulation_.makeUDPFlow("com.example.app", {{"example.org", "443"}});

  EXPECT_TRUE(handle(flow));

  EXPECT_EQ(simulation_.journal().lines(), (Lines{"flow 1: closeRead", "flow 1: closeWrite"}));
  EXPECT_EQ(flow->readCloseError(), std::nullopt);
  EXPECT_EQ(flow->writeCloseError(), std::nullopt);
}

TEST_F(FlowDispatch, DecidesAUDPFlowOnItsLocalEndpoint) {
  const std::string media = built_in::realtimeMediaDomains().at(0);

  EXPECT_FALSE(handle(simulation_.makeUDPFlow("com.example.app", {{media, "443"}})));
  EXPECT_EQ(simulation_.journal().lines(), Lines{});
}

TEST_F(FlowDispatch, DecidesATCPFlowOnItsRemoteEndpoint) {
  const std::string bypassed = built_in::hardBypassDomains().at(7);

  EXPECT_FALSE(handle(makeFlow("com.example.app", {{bypassed, "443"}})));
  EXPECT_TRUE(handle(makeFlow("com.example.app", {{"example.org", "443"}})));
}

TEST_F(FlowDispatch, TreatsAnUnknownTCPEndpointAsTheHostUnknown) {
  EXPECT_TRUE(handle(makeFlow("com.example.app", std::nullopt)));

  EXPECT_EQ(peer().cachedAction("com.example.app:unknown:tcp"), FlowAction::proxyTCP);
  EXPECT_EQ(simulation_.connectionCount(), 1U);
}

TEST_F(FlowDispatch, TreatsAnUnknownUDPEndpointAsTheHostUnknown) {
  EXPECT_TRUE(handle(simulation_.makeUDPFlow("com.example.app", std::nullopt)));

  EXPECT_EQ(peer().cachedAction("com.example.app:unknown:udp"), FlowAction::dropUDP);
}

TEST_F(FlowDispatch, LeavesAnUnknownEndpointOfAnExemptApplicationToTheSystem) {
  EXPECT_FALSE(handle(makeFlow("com.apple.trustd", std::nullopt)));
}

TEST_F(FlowDispatch, LeavesEveryFlowToTheSystemWhileTheGateIsClosed) {
  sockets().proxyListening(false);
  simulation_.advance(1s);

  EXPECT_FALSE(handle(makeFlow()));
  EXPECT_FALSE(handle(makeFlow("com.example.app", std::nullopt)));
  EXPECT_FALSE(handle(simulation_.makeUDPFlow("com.example.app", {{"example.org", "443"}})));
}

TEST_F(FlowDispatch, BypassesBeforeTheFirstProbe) {
  const auto fresh = std::make_shared<PacketTunnelProvider>(simulation_, simulation_);

  EXPECT_FALSE(fresh->handleNewFlow(makeFlow()));
}

// A flow that is neither TCP nor UDP.
class OtherFlow final : public platform::AppProxyFlow {
 public:
  std::string sourceAppSigningIdentifier() const override { return "com.example.app"; }
  void closeRead(OptionalError /*error*/) override { ++closes; }
  void closeWrite(OptionalError /*error*/) override { ++closes; }

  int closes = 0;
};

TEST_F(FlowDispatch, LeavesAFlowOfAnotherKindToTheSystem) {
  const auto flow = std::make_shared<OtherFlow>();

  EXPECT_FALSE(handle(flow));

  EXPECT_EQ(flow->closes, 0);
  EXPECT_EQ(peer().cachedAction("com.example.app:unknown:tcp"), FlowAction::proxyTCP);
}

TEST_F(FlowDispatch, TakesAFlowOfAnotherKindThatIsDroppedWithoutClosingIt) {
  const auto flow = std::make_shared<OtherFlow>();
  peer().addCacheEntry("com.example.app:unknown:tcp", FlowAction::dropUDP,
                       simulation::SimulatedClock::kStart + 1.0);

  EXPECT_TRUE(handle(flow));
  EXPECT_EQ(flow->closes, 0);
}

TEST_F(FlowDispatch, LeavesAUDPFlowToTheSystemThatWouldBeProxied) {
  const auto flow = simulation_.makeUDPFlow("com.example.app", {{"example.org", "443"}});
  peer().addCacheEntry("com.example.app:example.org:udp", FlowAction::proxyTCP,
                       simulation::SimulatedClock::kStart + 1.0);

  EXPECT_FALSE(handle(flow));
  EXPECT_FALSE(flow->readWasClosed());
}

// --- The local proxy itself

struct LoopCase {
  const char* name;
  const char* host;
  const char* port;
  bool isTaken;
};

void PrintTo(const LoopCase& loopCase, std::ostream* stream) {
  *stream << loopCase.name;
}

class LoopGuard : public FlowDispatch, public testing::WithParamInterface<LoopCase> {};

TEST_P(LoopGuard, LeavesExactlyTheLocalProxyToTheSystem) {
  EXPECT_EQ(handle(makeFlow("com.example.app", {{GetParam().host, GetParam().port}})),
            GetParam().isTaken);
}

INSTANTIATE_TEST_SUITE_P(Endpoints, LoopGuard,
                         testing::Values(LoopCase{"Address", "127.0.0.1", "8080", false},
                                         LoopCase{"Name", "localhost", "8080", false},
                                         LoopCase{"AddressWithAnotherPort", "127.0.0.1", "80",
                                                  true},
                                         LoopCase{"NameWithAnotherPort", "localhost", "80", true},
                                         LoopCase{"NameInCapitals", "LOCALHOST", "8080", true},
                                         LoopCase{"NameWithABlank", "localhost ", "8080", true},
                                         LoopCase{"NameWithARootDot", "localhost.", "8080", true},
                                         LoopCase{"PortWithAZero", "127.0.0.1", "08080", true},
                                         LoopCase{"PortWithABlank", "127.0.0.1", "8080 ", true},
                                         LoopCase{"AddressOfVersion6", "::1", "8080", true},
                                         LoopCase{"AnotherHost", "example.org", "8080", true}),
                         [](const auto& testCase) { return testCase.param.name; });

// --- Identifiers

TEST_F(FlowDispatch, DecidesOnTheTrimmedIdentifier) {
  EXPECT_FALSE(handle(makeFlow(" \tcom.apple.trustd\r\n")));
}

TEST_F(FlowDispatch, KeepsTheTrimmedIdentifierInTheCache) {
  handle(makeFlow(" com.example.app\n"));

  EXPECT_EQ(peer().cachedAction("com.example.app:example.org:tcp"), FlowAction::proxyTCP);
  EXPECT_EQ(peer().cacheSize(), 1U);
}

TEST_F(FlowDispatch, GivesTheTunnelAndItsEventsTheUntrimmedIdentifier) {
  handle(makeFlow(" com.example.app\n"));
  simulation_.connection(0)->accept();
  simulation_.run();

  EXPECT_NE(simulation_.peer(0)->received().find("X-Ostravel-App-Id:  com.example.app\r\n"),
            std::string::npos);
  EXPECT_EQ(events("connect_handshake_started").at(0).context->at("app_id"), " com.example.app\n");
}

TEST_F(FlowDispatch, GivesARejectionTheUntrimmedIdentifier) {
  takeFlows(kMaxPending);

  handle(makeFlow(" com.example.app\n"));

  EXPECT_EQ(events("connect_handshake_rejected").at(0).context->at("app_id"), " com.example.app\n");
}

// --- Opening

TEST_F(FlowDispatch, ClosesAFlowThatCannotBeOpenedWithItsError) {
  const auto flow = makeFlow();
  flow->failOpen(kOpenError);

  EXPECT_TRUE(handle(flow));

  EXPECT_EQ(simulation_.journal().lines(),
            (Lines{"flow 1: open", "flow 1: open failed: Flow is gone",
                   "flow 1: closeRead: Flow is gone", "flow 1: closeWrite: Flow is gone"}));
  EXPECT_EQ(flow->readCloseError(), kOpenError);
  EXPECT_EQ(flow->writeCloseError(), kOpenError);
  EXPECT_EQ(simulation_.logLines(LogLevel::error),
            Lines{"OstravelProxy: Failed to open flow: Flow is gone"});
  EXPECT_EQ(simulation_.logRecords().back().category, "OstravelProxy");
}

TEST_F(FlowDispatch, PassesOnThePlatformsOwnErrorObjectOfAFailedOpen) {
  const auto flow = makeFlow();
  Error error = kOpenError;
  error.platformObject = std::make_shared<Error::PlatformObject>();
  flow->failOpen(error);
  provider_->handleNewFlow(flow);

  simulation_.run();

  EXPECT_EQ(flow->readCloseError()->platformObject, error.platformObject);
  EXPECT_EQ(flow->writeCloseError()->platformObject, error.platformObject);
}

TEST_F(FlowDispatch, ReportsNothingAndTakesNoSlotForAFlowThatCannotBeOpened) {
  const auto flow = makeFlow();
  flow->failOpen(kOpenError);

  handle(flow);

  EXPECT_EQ(signals(), Lines{"provider_started"});
  EXPECT_EQ(peer().admission().pendingCount(), 0U);
  EXPECT_EQ(simulation_.connectionCount(), 0U);
}

TEST_F(FlowDispatch, ClosesAFlowThatCannotBeOpenedAlsoWhenTheProviderIsGone) {
  const auto flow = makeFlow();
  flow->holdOpen();
  handle(flow);
  provider_.reset();

  flow->failOpen(kOpenError);
  flow->releaseOpen();
  simulation_.run();

  EXPECT_EQ(flow->readCloseError(), kOpenError);
  EXPECT_EQ(flow->writeCloseError(), kOpenError);
  EXPECT_EQ(simulation_.logRecords().back().line,
            "OstravelProxy: Failed to open flow: Flow is gone");
  // The default log.
  EXPECT_EQ(simulation_.logRecords().back().subsystem, "");
}

TEST_F(FlowDispatch, LeavesAnOpenedFlowAloneWhenTheProviderIsGone) {
  const auto flow = makeFlow();
  flow->holdOpen();
  handle(flow);
  provider_.reset();

  flow->releaseOpen();
  simulation_.run();

  EXPECT_EQ(simulation_.connectionCount(), 0U);
  EXPECT_FALSE(flow->readWasClosed());
}

TEST_F(FlowDispatch, IsNotKeptAliveByAFlowThatIsBeingOpened) {
  const auto flow = makeFlow();
  flow->holdOpen();
  handle(flow);
  const std::weak_ptr<PacketTunnelProvider> weakProvider = provider_;

  provider_.reset();

  EXPECT_TRUE(weakProvider.expired());
}

// --- Tunnels

TEST_F(FlowDispatch, ConnectsToTheLocalProxyWithoutTLS) {
  takeFlow();

  ASSERT_EQ(simulation_.connectionCount(), 1U);
  EXPECT_EQ(simulation_.connectionEndpoint(0), (HostEndpoint{"127.0.0.1", "8080"}));
  EXPECT_EQ(simulation_.connectionTLS(0), platform::TLSPolicy::disabled);
}

TEST_F(FlowDispatch, KeepsTheTunnelInItsTable) {
  takeFlow();

  EXPECT_EQ(peer().activeTunnelCount(), 1U);
}

TEST_F(FlowDispatch, MakesAnUpperCaseUUIDForEachFlow) {
  takeFlows(2);
  for (std::size_t number = 0; number < 2; ++number) {
    simulation_.connection(number)->accept();
  }
  simulation_.run();

  EXPECT_NE(flowIdOf(0), flowIdOf(1));
  for (const char letter : flowIdOf(0)) {
    EXPECT_NE(std::string_view("0123456789ABCDEF-").find(letter), std::string_view::npos);
  }
  EXPECT_EQ(flowIdOf(0).size(), 36U);
}

TEST_F(FlowDispatch, CountsATunnelAsPendingUntilItIsEstablished) {
  takeFlow();
  EXPECT_EQ(peer().admission().pendingCount(), 1U);

  establish(0);

  EXPECT_EQ(peer().admission().pendingCount(), 0U);
  EXPECT_EQ(peer().establishedCount(), 1U);
}

TEST_F(FlowDispatch, ForgetsATunnelThatHasClosed) {
  const auto flow = takeFlow();
  establish(0);

  flow->application()->endSending();
  simulation_.run();

  EXPECT_EQ(peer().activeTunnelCount(), 0U);
  EXPECT_EQ(peer().admission().pendingCount(), 0U);
  EXPECT_EQ(peer().establishedCount(), 0U);
  EXPECT_EQ(events("tunnel_closed").size(), 1U);
}

TEST_F(FlowDispatch, ForgetsATunnelThatClosesDuringItsHandshake) {
  takeFlow();

  simulation_.connection(0)->refuse();
  simulation_.run();

  EXPECT_EQ(peer().activeTunnelCount(), 0U);
  EXPECT_EQ(peer().admission().pendingCount(), 0U);
}

TEST_F(FlowDispatch, ForgetsATunnelThatClosesBeforeItIsInTheTable) {
  bool closedEarly = false;
  simulation_.onConnectionCreated([this, &closedEarly](simulation::SimulatedTCPConnection& made) {
    // Fails as soon as anything runs, before the queued insertion into the table.
    simulation_.post([this, &made, &closedEarly] {
      closedEarly = peer().activeTunnelCount() == 0;
      made.setState(platform::TCPConnectionState::disconnected, kOpenError);
    });
  });

  takeFlow();

  EXPECT_TRUE(closedEarly);
  EXPECT_EQ(peer().activeTunnelCount(), 0U);
  EXPECT_EQ(events("tunnel_closed").size(), 1U);
}

TEST_F(FlowDispatch, ForgetsATunnelThatClosesInsideItsStart) {
  // The handshake begins inside the start and finds a request that cannot be sent.
  simulation_.onConnectionCreated([](simulation::SimulatedTCPConnection& made) {
    made.setState(platform::TCPConnectionState::connected);
  });

  handle(makeFlow("com.example.app", {{"bad\xFFhost", "443"}}));

  EXPECT_EQ(events("tunnel_closed").size(), 1U);
  EXPECT_EQ(peer().activeTunnelCount(), 0U);
  EXPECT_EQ(peer().admission().pendingCount(), 0U);
}

TEST_F(FlowDispatch, KeepsTheProviderUntilATunnelIsInTheTable) {
  provider_->handleNewFlow(makeFlow());
  while (simulation_.connectionCount() == 0) {
    ASSERT_TRUE(simulation_.runOne());
  }
  // The insertion is queued and has not run.
  const std::weak_ptr<PacketTunnelProvider> weakProvider = provider_;

  provider_.reset();
  EXPECT_FALSE(weakProvider.expired());

  simulation_.run();
  EXPECT_TRUE(weakProvider.expired());
}

TEST_F(FlowDispatch, GivesTheHandshakeFiveSeconds) {
  takeFlow();

  simulation_.advance(5s - 1ns);
  EXPECT_EQ(events("connect_handshake_timed_out").size(), 0U);

  simulation_.advance(1ns);
  const auto timeouts = events("connect_handshake_timed_out");
  ASSERT_EQ(timeouts.size(), 1U);
  EXPECT_EQ(timeouts[0].metrics->at("timeout_seconds"), 5.0);
}

TEST_F(FlowDispatch, KeepsATunnelAliveByItsTableOnly) {
  takeFlow();
  // The tunnel alone holds its connection.
  ASSERT_NE(simulation_.connection(0), nullptr);

  stopProvider(platform::ProviderStopReason::none);

  EXPECT_EQ(simulation_.connection(0), nullptr);
}

TEST_F(FlowDispatch, DoesNothingForATunnelThatOutlivesTheProvider) {
  const auto flow = takeFlow();
  establish(0);
  // A write keeps the tunnel alive.
  simulation_.peer(0)->holdWrites();
  flow->application()->send("x");
  simulation_.run();
  const std::weak_ptr<PacketTunnelProvider> weakProvider = provider_;
  provider_.reset();
  ASSERT_TRUE(weakProvider.expired());

  simulation_.peer(0)->failWrites(kOpenError);
  simulation_.run();

  EXPECT_TRUE(flow->readWasClosed());
  EXPECT_EQ(signals().back(), "tunnel_closed");
}

// --- Identifiers

class ConstantUUIDSource final : public platform::UUIDSource {
 public:
  std::string randomUUID() override { return "00000000-0000-4000-8000-000000000000"; }
};

class FlowDispatchIdentifiers : public FlowDispatch {
 protected:
  void SetUp() override {
    platform_.useUUIDs(uuids_);
    provider_ = std::make_shared<PacketTunnelProvider>(platform_, simulation_);
    FlowDispatch::SetUp();
  }

  ConstantUUIDSource uuids_;
  NotingPlatform platform_{simulation_};
};

TEST_F(FlowDispatchIdentifiers, TheTableKeepsTheLaterOfTwoTunnelsWithTheSameIdentifier) {
  takeFlow();
  establish(0);
  takeFlow();
  EXPECT_EQ(peer().activeTunnelCount(), 1U);

  // The table alone holds the tunnel, which alone holds its connection.
  ASSERT_NE(simulation_.connection(1), nullptr);
  establish(1);

  EXPECT_EQ(peer().admission().pendingCount(), 0U);
}

// --- Queues

// The operations that the provider submits to its queues.
class FlowDispatchQueues : public FlowDispatch {
 protected:
  void SetUp() override {
    provider_ = std::make_shared<PacketTunnelProvider>(platform_, simulation_);
    FlowDispatch::SetUp();
    platform_.clearNotes();
  }

  NotingPlatform platform_{simulation_};
};

TEST_F(FlowDispatchQueues, ChangeTheTableByBarriersOnly) {
  const auto flow = takeFlow();
  establish(0);
  flow->application()->endSending();
  simulation_.run();
  stopProvider(platform::ProviderStopReason::none);

  EXPECT_EQ(
      platform_.notesOf("com.ostravel.activeTunnels"),
      (Lines{"com.ostravel.activeTunnels asyncBarrier", "com.ostravel.activeTunnels asyncBarrier",
             "com.ostravel.activeTunnels syncBarrier"}));
}

TEST_F(FlowDispatchQueues, ReadTheCacheSideBySideAndChangeItByABarrier) {
  takeFlow();
  takeFlow();

  EXPECT_EQ(platform_.notesOf("com.ostravel.bypassCache"),
            (Lines{"com.ostravel.bypassCache sync", "com.ostravel.bypassCache asyncBarrier",
                   "com.ostravel.bypassCache sync"}));
}

TEST_F(FlowDispatchQueues, AreSeparateForEachWatchdog) {
  takeFlows(2);

  EXPECT_EQ(platform_.notesOf("queue com.ostravel.handshakeWatchdog"),
            (Lines{"queue com.ostravel.handshakeWatchdog serial",
                   "queue com.ostravel.handshakeWatchdog serial"}));
}

// --- Backlog

TEST_F(FlowDispatch, RejectsAFlowWhileFortyEightHandshakesArePending) {
  takeFlows(kMaxPending);
  const auto flow = makeFlow();

  EXPECT_TRUE(handle(flow));

  const Error rejection{"OstravelProxy", 1001, "Proxy handshake backlog exceeded"};
  EXPECT_EQ(flow->readCloseError(), rejection);
  EXPECT_EQ(flow->writeCloseError(), rejection);
  EXPECT_EQ(simulation_.connectionCount(), kMaxPending);
  EXPECT_EQ(peer().activeTunnelCount(), kMaxPending);
  EXPECT_EQ(simulation_.logLines(LogLevel::error),
            Lines{"OstravelProxy: Rejecting flow due to handshake backlog"});
}

TEST_F(FlowDispatch, ClosesARejectedFlowsReadSideFirst) {
  takeFlows(kMaxPending);
  simulation_.journal().clear();

  const auto flow = takeFlow();

  EXPECT_EQ(simulation_.journal().lines(),
            (Lines{"flow 49: open", "flow 49: opened",
                   "flow 49: closeRead: Proxy handshake backlog exceeded",
                   "flow 49: closeWrite: Proxy handshake backlog exceeded"}));
}

TEST_F(FlowDispatch, ReportsARejectionWithThePendingCount) {
  takeFlows(kMaxPending + 1);

  const auto rejections = events("connect_handshake_rejected");
  ASSERT_EQ(rejections.size(), 1U);
  ASSERT_TRUE(rejections[0].flowID);
  EXPECT_EQ(rejections[0].flowID->size(), 36U);
  EXPECT_EQ(rejections[0], (EventFacts{.signal = "connect_handshake_rejected",
                                       .code = "extension.connect_handshake_backlog_exceeded",
                                       .level = "error",
                                       .message = "Rejected flow due to CONNECT handshake backlog",
                                       .flowID = rejections[0].flowID,
                                       .metrics = {{{"pending_handshakes", 48.0}}},
                                       .context = {{{"app_id", "com.example.app"}}}}));
}

TEST_F(FlowDispatch, TakesFlowsAgainOnceAHandshakeHasSucceeded) {
  takeFlows(kMaxPending);
  establish(0);

  takeFlow();

  EXPECT_EQ(simulation_.connectionCount(), kMaxPending + 1);
}

TEST_F(FlowDispatch, TakesFlowsAgainOnceAHandshakeHasEndedInOrder) {
  takeFlows(kMaxPending);
  simulation_.connection(0)->accept();
  simulation_.peer(0)->send("HTTP/1.1 502 Bad Gateway\r\n\r\n");
  simulation_.run();

  takeFlow();

  EXPECT_EQ(simulation_.connectionCount(), kMaxPending + 1);
}

// --- The proxy fails

TEST_F(FlowDispatch, BypassesTheVeryNextFlowAfterATunnelFailedDespiteTheCache) {
  takeFlow();
  ASSERT_EQ(peer().cachedAction("com.example.app:example.org:tcp"), FlowAction::proxyTCP);
  simulation_.connection(0)->setState(platform::TCPConnectionState::disconnected, kOpenError);

  EXPECT_FALSE(provider_->handleNewFlow(makeFlow()));
}

TEST_F(FlowDispatch, ProxiesAgainAfterTheNextGoodProbe) {
  takeFlow();
  simulation_.connection(0)->refuse();
  simulation_.run();
  ASSERT_FALSE(provider_->handleNewFlow(makeFlow()));

  simulation_.advance(1s);

  EXPECT_TRUE(handle(makeFlow()));
  EXPECT_EQ(events("proxy_unreachable").size(), 0U);
  EXPECT_EQ(events("proxy_recovered").size(), 0U);
}

TEST_F(FlowDispatch, KeepsProxyingAfterARejectedRequest) {
  takeFlow();
  simulation_.connection(0)->accept();
  simulation_.peer(0)->send("HTTP/1.1 403 Forbidden\r\n\r\n");
  simulation_.run();

  EXPECT_TRUE(handle(makeFlow()));
}

TEST_F(FlowDispatch, KeepsProxyingAfterAnEstablishedTunnelFailed) {
  takeFlow();
  establish(0);

  simulation_.peer(0)->reset();
  simulation_.run();

  EXPECT_EQ(events("tunnel_closed").at(0).level, "error");
  EXPECT_TRUE(handle(makeFlow()));
}

TEST_F(FlowDispatch, BypassesAfterATimeout) {
  // Between two probes, the next of which opens the gate again.
  simulation_.advance(500ms);
  takeFlow();

  simulation_.advance(5s);

  EXPECT_FALSE(handle(makeFlow()));
}

}  // namespace
}  // namespace ostravel
