#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Tests/Extension/Support/NotingPlatform.h"
#include "Tests/Extension/Support/ProviderTest.h"

namespace ostravel {
namespace {

using platform::ProviderStopReason;
using simulation::SocketCallKind;
using test::EventFacts;
using test::NotingPlatform;
using test::ProviderTest;
using namespace std::chrono_literals;

using Lines = std::vector<std::string>;

class ProviderHealth : public ProviderTest {
 protected:
  // How many connections to the proxy were tried since the last time.
  std::size_t probes() {
    std::size_t count = 0;
    for (const auto& call : sockets().calls(SocketCallKind::connect)) {
      const bool toProxy = call.bytes.size() == 16;
      count += toProxy ? 1 : 0;
    }
    sockets().clearCalls();
    return count;
  }
};

TEST_F(ProviderHealth, ProbesAtOnceAndThenOncePerSecond) {
  startProvider();
  EXPECT_EQ(probes(), 1U);

  simulation_.advance(1s - 1ns);
  EXPECT_EQ(probes(), 0U);

  simulation_.advance(1ns);
  EXPECT_EQ(probes(), 1U);

  simulation_.advance(10s);
  EXPECT_EQ(probes(), 10U);
}

TEST_F(ProviderHealth, ProbesOnItsQueueAndNotInsideTheStart) {
  provider_->startProxy(std::nullopt, [](const platform::OptionalError&) {});

  EXPECT_EQ(probes(), 0U);
}

TEST_F(ProviderHealth, ProbesTheLocalProxyFor350Milliseconds) {
  configure(std::nullopt);
  startProvider();

  const auto address = sockets().calls(SocketCallKind::connect).at(0).bytes;
  EXPECT_EQ(std::vector<std::byte>(address.begin() + 2, address.begin() + 8),
            (std::vector{std::byte{0x1F}, std::byte{0x90}, std::byte{127}, std::byte{0},
                         std::byte{0}, std::byte{1}}));
  EXPECT_EQ(sockets().calls(SocketCallKind::pollWritable).at(0).timeout, 350ms);
}

TEST_F(ProviderHealth, OpensTheGateSilentlyWhenTheProxyIsUp) {
  startProvider();

  EXPECT_FALSE(bypassesNewFlows());
  EXPECT_EQ(signals(), Lines{"provider_started"});
}

TEST_F(ProviderHealth, ReportsAProxyThatIsDownAtTheStart) {
  sockets().proxyListening(false);

  startProvider();

  EXPECT_TRUE(bypassesNewFlows());
  EXPECT_EQ(events("proxy_unreachable"),
            std::vector{(EventFacts{
                .signal = "proxy_unreachable",
                .code = "extension.proxy_unreachable",
                .level = "error",
                .message = "Local proxy is unreachable; transparent proxy is bypassing new flows",
                .context = {{{"proxy", "127.0.0.1:8080"}}}})});
}

TEST_F(ProviderHealth, DeliversAnEventOfTheFirstTick) {
  // The path is set before the first probe can run.
  sockets().proxyListening(false);

  startProvider();

  EXPECT_EQ(signals(), (Lines{"provider_started", "proxy_unreachable"}));
}

TEST_F(ProviderHealth, ReportsTheRecoveryOnce) {
  sockets().proxyListening(false);
  startProvider();
  simulation_.advance(10s);
  sockets().proxyListening(true);

  simulation_.advance(10s);

  EXPECT_FALSE(bypassesNewFlows());
  EXPECT_EQ(signals(), (Lines{"provider_started", "proxy_unreachable", "proxy_recovered"}));
  EXPECT_EQ(events("proxy_recovered"),
            std::vector{(EventFacts{
                .signal = "proxy_recovered",
                .code = "extension.proxy_recovered",
                .level = "info",
                .message = "Local proxy recovered; transparent proxy can handle new flows",
                .context = {{{"proxy", "127.0.0.1:8080"}}}})});
}

TEST_F(ProviderHealth, ReportsEveryOutageOnce) {
  startProvider();
  for (int outage = 0; outage < 2; ++outage) {
    sockets().proxyListening(false);
    simulation_.advance(5s);
    EXPECT_TRUE(bypassesNewFlows());
    sockets().proxyListening(true);
    simulation_.advance(5s);
    EXPECT_FALSE(bypassesNewFlows());
  }

  EXPECT_EQ(signals(), (Lines{"provider_started", "proxy_unreachable", "proxy_recovered",
                              "proxy_unreachable", "proxy_recovered"}));
}

TEST_F(ProviderHealth, CountsASilentProxyAsDown) {
  sockets().proxySilent();

  startProvider();

  EXPECT_TRUE(bypassesNewFlows());
  EXPECT_EQ(events("proxy_unreachable").size(), 1U);
}

TEST_F(ProviderHealth, LogsNothing) {
  startProvider();
  const auto logged = simulation_.logLines();

  sockets().proxyListening(false);
  simulation_.advance(2s);
  sockets().proxyListening(true);
  simulation_.advance(2s);

  EXPECT_EQ(simulation_.logLines(), logged);
}

TEST_F(ProviderHealth, LeavesRunningTunnelsAlone) {
  startProvider();
  takeFlow();
  establish(0);
  simulation_.journal().clear();

  sockets().proxyListening(false);
  simulation_.advance(10s);

  EXPECT_EQ(peer().activeTunnelCount(), 1U);
  EXPECT_EQ(simulation_.journal().lines(), Lines{});
}

TEST_F(ProviderHealth, ReplacesItsTimerWhenStartedTwice) {
  startProvider();
  startProvider();
  probes();

  simulation_.advance(10s);

  EXPECT_EQ(probes(), 10U);
}

TEST_F(ProviderHealth, ProbesAtOnceWhenStartedAgain) {
  startProvider();
  simulation_.advance(500ms);
  probes();

  startProvider();

  EXPECT_EQ(probes(), 1U);
}

TEST_F(ProviderHealth, StopsProbing) {
  startProvider();
  probes();

  stopProvider(ProviderStopReason::none);
  simulation_.advance(10s);

  EXPECT_EQ(probes(), 0U);
}

TEST_F(ProviderHealth, DoesNotProbeBeforeAStopThatComesAtOnce) {
  provider_->startProxy(std::nullopt, [](const platform::OptionalError&) {});

  stopProvider(ProviderStopReason::none);
  simulation_.advance(10s);

  EXPECT_EQ(probes(), 0U);
  EXPECT_TRUE(bypassesNewFlows());
}

TEST_F(ProviderHealth, DoesNotRunATickThatWasDueWhenItWasStopped) {
  // Set before the tick's timer for the same moment, so its handler runs first while the tick,
  // which is due as well, waits on its queue.
  const auto stopping =
      simulation_.makeTimer(simulation_.makeQueue("stop", platform::DispatchQueueKind::serial));
  stopping->setEventHandler([this] { stopProvider(ProviderStopReason::none); });
  stopping->schedule(1s, std::nullopt, 0ns);
  stopping->resume();
  startProvider();
  probes();

  simulation_.advance(10s);

  EXPECT_EQ(probes(), 0U);
}

TEST_F(ProviderHealth, MayBeStoppedTwice) {
  startProvider();

  stopProvider(ProviderStopReason::none);
  stopProvider(ProviderStopReason::none);
  probes();
  simulation_.advance(10s);

  EXPECT_EQ(probes(), 0U);
}

TEST_F(ProviderHealth, LeavesTheGateAsItIsWhenStopped) {
  startProvider();
  sockets().proxyListening(false);

  stopProvider(ProviderStopReason::none);
  simulation_.advance(10s);

  EXPECT_FALSE(bypassesNewFlows());
}

TEST_F(ProviderHealth, KeepsItsLastResultWhenStoppedAndStarted) {
  sockets().proxyListening(false);
  startProvider();
  stopProvider(ProviderStopReason::none);

  startProvider();
  simulation_.advance(5s);

  EXPECT_EQ(events("proxy_unreachable").size(), 1U);
  EXPECT_TRUE(bypassesNewFlows());
}

TEST_F(ProviderHealth, ReopensSilentlyAGateThatATunnelClosed) {
  startProvider();
  takeFlow();
  simulation_.connection(0)->refuse();
  simulation_.run();
  ASSERT_TRUE(bypassesNewFlows());

  simulation_.advance(1s);

  EXPECT_FALSE(bypassesNewFlows());
  EXPECT_EQ(signals(), (Lines{"provider_started", "tunnel_closed"}));
}

// --- What it tells

TEST_F(ProviderHealth, KnowsNothingBeforeTheFirstProbe) {
  const auto health = provider_->health();
  EXPECT_EQ(health.isGateOpen, std::nullopt);
  EXPECT_FALSE(health.lastProbe);
}

TEST_F(ProviderHealth, TellsOfTheLastProbeAndSinceWhenTheGateIsOpenOrClosed) {
  const double start = simulation_.clock().secondsSince1970();
  startProvider();
  simulation_.advance(2s);
  const auto whileUp = provider_->health();
  EXPECT_EQ(whileUp.isGateOpen, true);
  EXPECT_DOUBLE_EQ(whileUp.gateSince, start);
  EXPECT_DOUBLE_EQ(whileUp.lastProbe.value().time, start + 2.0);
  EXPECT_TRUE(whileUp.lastProbe->isReachable);

  sockets().proxyListening(false);
  simulation_.advance(3s);
  const auto whileDown = provider_->health();
  EXPECT_EQ(whileDown.isGateOpen, false);
  EXPECT_DOUBLE_EQ(whileDown.gateSince, start + 3.0);
  EXPECT_DOUBLE_EQ(whileDown.lastProbe.value().time, start + 5.0);
  EXPECT_FALSE(whileDown.lastProbe->isReachable);
}

TEST_F(ProviderHealth, TellsWhenATunnelClosedTheGate) {
  const double start = simulation_.clock().secondsSince1970();
  startProvider();
  simulation_.advance(500ms);
  takeFlow();
  simulation_.connection(0)->refuse();
  simulation_.run();

  const auto health = provider_->health();
  EXPECT_EQ(health.isGateOpen, false);
  EXPECT_DOUBLE_EQ(health.gateSince, start + 0.5);
  EXPECT_TRUE(health.lastProbe.value().isReachable);
}

// The calls to the timer.
class ProviderHealthTimer : public ProviderHealth {
 protected:
  NotingPlatform platform_{simulation_};
  std::shared_ptr<PacketTunnelProvider> noted_ =
      std::make_shared<PacketTunnelProvider>(platform_, simulation_);

  void startNoted() {
    platform_.clearNotes();
    noted_->startProxy(std::nullopt, [](const platform::OptionalError&) {});
  }
};

TEST_F(ProviderHealthTimer, ProbesNowAndEverySecondWithALeeway) {
  startNoted();

  EXPECT_EQ(platform_.notesOf("timer "),
            (Lines{"timer 1 on com.ostravel.proxyHealth", "timer 1 schedule 0 1000 150",
                   "timer 1 handler", "timer 1 resume"}));
}

TEST_F(ProviderHealthTimer, LosesItsHandlerBeforeItIsCancelled) {
  startNoted();
  platform_.clearNotes();

  noted_->stopProxy(ProviderStopReason::none, [] {});

  EXPECT_EQ(platform_.notesOf("timer "), (Lines{"timer 1 handler", "timer 1 cancel"}));
}

TEST_F(ProviderHealthTimer, IsLeftAloneByASecondStop) {
  startNoted();
  noted_->stopProxy(ProviderStopReason::none, [] {});
  platform_.clearNotes();

  noted_->stopProxy(ProviderStopReason::none, [] {});

  EXPECT_EQ(platform_.notesOf("timer "), Lines{});
}

TEST_F(ProviderHealthTimer, IsCancelledBeforeAnotherOneIsMade) {
  startNoted();

  startNoted();

  EXPECT_EQ(platform_.notesOf("timer "),
            (Lines{"timer 1 cancel", "timer 2 on com.ostravel.proxyHealth",
                   "timer 2 schedule 0 1000 150", "timer 2 handler", "timer 2 resume"}));
}

class ProviderHealthLeeway : public testing::TestWithParam<std::uint64_t> {
 protected:
  test::ProviderHarness harness_{
      {.order = simulation::RunOrder::seeded, .seed = GetParam(), .faults = {}}};
};

TEST_P(ProviderHealthLeeway, DoesNotDelayTheFirstProbe) {
  harness_.startProvider();

  EXPECT_EQ(harness_.simulation_.now(), 0ms);
  EXPECT_FALSE(harness_.bypassesNewFlows());
}

TEST_P(ProviderHealthLeeway, DelaysALaterProbeByAtMost150Milliseconds) {
  harness_.startProvider();
  harness_.sockets().proxyListening(false);

  ASSERT_TRUE(harness_.simulation_.runUntil([this] { return harness_.bypassesNewFlows(); }, 10s));

  EXPECT_GE(harness_.simulation_.now(), 1s);
  EXPECT_LE(harness_.simulation_.now(), 1150ms);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ProviderHealthLeeway, testing::Range<std::uint64_t>(1, 21));

TEST_F(ProviderHealth, EndsWithTheProvider) {
  startProvider();
  probes();

  provider_.reset();
  simulation_.advance(10s);

  EXPECT_EQ(probes(), 0U);
}

}  // namespace
}  // namespace ostravel
