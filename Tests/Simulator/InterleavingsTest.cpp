// Small scenarios in every possible order, or in every order that is close to the usual one:
// enumerated, not drawn.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Base/FlowIdentifier.h"
#include "Extension/ProxyTunnelCore/ProxyHealthMonitor.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelAdmissionController.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelHandshakeWatchdog.h"
#include "Platform/Simulation/Simulation.h"
#include "Tests/Extension/Support/PacketTunnelProviderTestPeer.h"
#include "Tests/Simulator/ScheduleExplorer.h"
#include "Tests/Simulator/SmallRun.h"

namespace ostravel::simulator {
namespace {

using namespace std::chrono_literals;
using simulation::RunQueue;

// Plays the scenario in every order that differs from the usual one in that many places; returns
// how many there are.
std::size_t playOrders(const Scenario& scenario, std::size_t mostDeviations) {
  ScheduleExplorer explorer(mostDeviations);
  std::size_t orders = 0;
  do {
    SmallRun run(scenario, [&explorer](std::uint64_t bound) { return explorer.choose(bound); });
    const auto violation = run.play();
    ++orders;
    if (violation) {
      ADD_FAILURE() << "order " << orders << ", flow " << violation->flow << ": "
                    << violation->invariant;
      break;
    }
  } while (explorer.next());
  testing::Test::RecordProperty("orders", std::to_string(orders));
  return orders;
}

TEST(ScheduleExplorerTest, EnumeratesEverySequence) {
  ScheduleExplorer explorer;
  std::vector<std::uint64_t> sequences;
  const auto played = explorer.playAll([&] {
    const auto first = explorer.choose(2);
    sequences.push_back(first * 10 + explorer.choose(first == 0 ? 2 : 3));
  });

  EXPECT_EQ(played, 5U);
  EXPECT_EQ(sequences, (std::vector<std::uint64_t>{0, 1, 10, 11, 12}));
}

TEST(ScheduleExplorerTest, EnumeratesSequencesCloseToTheUsualOne) {
  ScheduleExplorer explorer(1);
  std::vector<std::uint64_t> sequences;
  explorer.playAll([&] {
    std::uint64_t sequence = 0;
    for (int i = 0; i < 3; ++i) {
      sequence = sequence * 10 + explorer.choose(3);
    }
    sequences.push_back(sequence);
  });

  EXPECT_EQ(sequences, (std::vector<std::uint64_t>{0, 1, 2, 10, 20, 100, 200}));
}

TEST(InterleavingsTest, AnswerAgainstTheEndsOfBothSides) {
  const Scenario scenario{.flows = {{.steps = {Move::answerWithLeftover,
                                               Move::sendAndEndApplication, Move::resetProxy}}}};

  EXPECT_GT(playOrders(scenario, 3), 100U);
}

TEST(InterleavingsTest, AnswerAgainstAResetOfTheApplicationWithAPreemption) {
  const Scenario scenario{.flows = {{.steps = {Move::answer, Move::resetApplication}}},
                          .mostPreemptions = 1};

  EXPECT_GT(playOrders(scenario, 2), 100U);
}

TEST(InterleavingsTest, AnswerAtTheMomentOfTheTimeout) {
  const Scenario scenario{
      .flows = {{.steps = {Move::answerWithLeftover, Move::sendAndEndApplication},
                 .isAtDeadline = true}},
      .mostPreemptions = 1};

  EXPECT_GT(playOrders(scenario, 3), 100U);
}

TEST(InterleavingsTest, AcceptanceAgainstTheStartOfTheTunnel) {
  const Scenario scenario{.flows = {{.steps = {Move::reject}, .isAcceptedLate = true}},
                          .mostPreemptions = 2};

  EXPECT_GT(playOrders(scenario, 2), 100U);
}

TEST(InterleavingsTest, TwoFlowsAndOneSlot) {
  const Scenario scenario{.flows = {{.steps = {Move::reject}}, {.steps = {Move::answer}}},
                          .slots = 1};

  EXPECT_GT(playOrders(scenario, 3), 100U);
}

TEST(InterleavingsTest, TwoFlowsAndTwoSlots) {
  const Scenario scenario{.flows = {{.steps = {Move::reject}}, {.steps = {Move::resetProxy}}},
                          .slots = 2};

  EXPECT_GT(playOrders(scenario, 2), 100U);
}

TEST(InterleavingsTest, AFailureAgainstTheProbeAndANewFlow) {
  const Scenario scenario{.flows = {{.steps = {Move::resetProxy}}, {.steps = {}}},
                          .probeFails = true,
                          .probeSucceeds = true};

  EXPECT_GT(playOrders(scenario, 2), 100U);
}

TEST(InterleavingsTest, AStopAgainstEverything) {
  const Scenario scenario{.flows = {{.steps = {Move::answer, Move::sendAndEndApplication}}},
                          .mostPreemptions = 1,
                          .stops = true};

  EXPECT_GT(playOrders(scenario, 2), 100U);
}

// The controller alone: two flows, each of which is admitted, perhaps established, and released.
TEST(InterleavingsTest, AdmissionOfTwoFlowsInEveryOrder) {
  for (const std::size_t slots : {1U, 2U}) {
    ScheduleExplorer explorer;
    const auto orders = explorer.playAll([&] {
      ProxyTunnelAdmissionController controller;
      const std::size_t occupied = ProxyTunnelAdmissionController::maxPendingHandshakes - slots;
      for (std::size_t i = 0; i < occupied; ++i) {
        controller.tryAcquireHandshakeSlot(FlowIdentifier("occupied " + std::to_string(i)));
      }
      // Admitted, requested again, established, requested again, released, released again.
      constexpr int kSteps = 6;
      int done[2] = {0, 0};
      bool pending[2] = {false, false};
      bool established[2] = {false, false};
      while (done[0] < kSteps || done[1] < kSteps) {
        const std::size_t flow = done[0] == kSteps ? 1 : done[1] == kSteps ? 0 : explorer.choose(2);
        const FlowIdentifier id("flow " + std::to_string(flow));
        const int step = done[flow]++;
        const bool isKnown = pending[flow] || established[flow];
        const bool hasRoom = std::size_t{pending[0]} + std::size_t{pending[1]} < slots;
        if (step == 0 || step == 1 || step == 3) {
          const bool isAdmitted = controller.tryAcquireHandshakeSlot(id);
          ASSERT_EQ(isAdmitted, isKnown || hasRoom);
          pending[flow] = pending[flow] || (isAdmitted && !isKnown);
        } else if (step == 2) {
          if (isKnown) {
            controller.markEstablished(id);
            pending[flow] = false;
            established[flow] = true;
          }
        } else {
          controller.release(id);
          pending[flow] = false;
          established[flow] = false;
        }
        ASSERT_EQ(controller.pendingCount(),
                  occupied + std::size_t{pending[0]} + std::size_t{pending[1]});
        ASSERT_EQ(PacketTunnelProviderTestPeer::establishedCount(controller),
                  std::size_t{established[0]} + std::size_t{established[1]});
      }
    });
    EXPECT_EQ(orders, 924U);
  }
}

// The watchdog alone: a second start and two attempts to finish it, against its expiry.
TEST(InterleavingsTest, TheWatchdogFiresOrIsFinishedAndNeverBoth) {
  ScheduleExplorer explorer;
  std::size_t fired = 0;
  const auto orders = explorer.playAll([&] {
    RunQueue queue([&explorer](std::uint64_t bound) { return explorer.choose(bound); });
    simulation::Simulation platform;
    int callbacks = 0;
    const auto watchdogQueue = platform.makeQueue("watchdog", platform::DispatchQueueKind::serial);
    const auto watchdog = std::make_shared<ProxyTunnelHandshakeWatchdog>(
        platform, 5.0, watchdogQueue, [&callbacks] { ++callbacks; });
    bool wasStarted = false;
    bool wasFinished = false;
    queue.post([&] {
      watchdog->start();
      wasStarted = true;
    });
    queue.post([&] { watchdog->start(); });
    for (int i = 0; i < 2; ++i) {
      queue.post([&] {
        const bool isRunning = PacketTunnelProviderTestPeer::stateOf(*watchdog) ==
                               PacketTunnelProviderTestPeer::WatchdogState::running;
        watchdog->finishWithoutCallback();
        wasFinished = wasFinished || isRunning;
      });
    }
    queue.post([&] { platform.advance(5s); });
    queue.post([&] { platform.advance(5s); });
    queue.run();
    platform.advance(10s);

    ASSERT_LE(callbacks, 1);
    ASSERT_EQ(callbacks == 1, !wasFinished);
    ASSERT_EQ(PacketTunnelProviderTestPeer::stateOf(*watchdog),
              PacketTunnelProviderTestPeer::WatchdogState::finished);
    fired += callbacks == 1 ? 1 : 0;
  });

  EXPECT_EQ(orders, 720U);
  EXPECT_GT(fired, 0U);
  EXPECT_LT(fired, orders);
}

// The gate alone: probes, and tunnels that fail, in every order; the latest result counts.
TEST(InterleavingsTest, TheGateFollowsTheLatestResult) {
  ScheduleExplorer explorer;
  const auto orders = explorer.playAll([&explorer] {
    const auto gate = std::make_shared<ProxySafetyGate>(true, false);
    std::vector<ProxyHealthEvent> events;
    ProxyHealthMonitor monitor(gate,
                               [&events](ProxyHealthEvent event) { events.push_back(event); });
    std::optional<bool> lastProbe;
    std::vector<ProxyHealthEvent> expected;
    for (int step = 0; step < 7; ++step) {
      const auto word = explorer.choose(3);
      bool isClosed = true;
      if (word == 2) {
        gate->setProxyUnavailable(true);
      } else {
        const bool isReachable = word == 0;
        monitor.recordProbeResult(isReachable ? ProxyHealthProbeResult::reachable
                                              : ProxyHealthProbeResult::unreachable);
        if (lastProbe != isReachable && (lastProbe || !isReachable)) {
          expected.push_back(isReachable ? ProxyHealthEvent::proxyRecovered
                                         : ProxyHealthEvent::proxyUnavailable);
        }
        lastProbe = isReachable;
        isClosed = !isReachable;
      }
      ASSERT_EQ(gate->shouldBypassNewFlows(), isClosed);
    }
    ASSERT_EQ(events, expected);
  });

  EXPECT_EQ(orders, 2187U);
}

}  // namespace
}  // namespace ostravel::simulator
