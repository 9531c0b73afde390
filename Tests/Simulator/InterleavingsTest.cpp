// Small scenarios in every order there is, or in every order that is close to the usual one: not
// drawn, but gone through.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Extension/ProxyTunnelCore/ProxyHealthMonitor.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelAdmissionController.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelHandshakeWatchdog.h"
#include "Platform/Simulation/Simulation.h"
#include "Tests/Extension/Support/PacketTunnelProviderTestPeer.h"
#include "Tests/Simulator/FlowScript.h"
#include "Tests/Simulator/ObservedFlow.h"
#include "Tests/Simulator/ScheduleExplorer.h"
#include "Tests/Simulator/SimulatorPlatform.h"
#include "Tests/Simulator/TearDown.h"

namespace ostravel::simulator {
namespace {

using namespace std::chrono_literals;
using simulation::RunQueue;

// What the two sides of a flow do once the proxy has the request; in every order, and mixed with
// whatever the system does meanwhile.
enum class Move {
  answer,
  answerWithLeftover,
  reject,
  resetProxy,
  endProxy,
  endApplication,
  resetApplication,
};

struct SmallFlow {
  std::vector<Move> moves;
  // Also accepting the connection is one of them; otherwise it is accepted when it is made.
  bool isAcceptedLate = false;
  // The moves come exactly when the time-out does.
  bool isAtDeadline = false;
};

class SmallScript final : public FlowScript {
 public:
  SmallScript(World& world, std::uint32_t number, SmallFlow flow)
      : FlowScript(world, number,
                   {"com.example.app", true, "www.example.org", "443", Expectation::carry}),
        plan_(std::move(flow)) {}

  void begin(const std::shared_ptr<simulation::SimulatedTCPFlow>& flow,
             const std::shared_ptr<Strand>& strand) override {
    keep(flow, strand);
  }

  void connect(const std::shared_ptr<simulation::SimulatedTCPConnection>& connection) override {
    keep(connection);
    if (plan_.isAcceptedLate) {
      connection->accept();
    } else {
      connection->setState(platform::TCPConnectionState::connected);
    }
    if (plan_.isAtDeadline) {
      for (const Move move : plan_.moves) {
        world().queue().postAfter(HistoryChecker::kHandshakeTimeout, acting(move));
      }
    }
  }

  void receiveRequest() override {
    if (!plan_.isAtDeadline) {
      for (const Move move : plan_.moves) {
        world().queue().post(acting(move));
      }
    }
  }

 private:
  std::function<void()> acting(Move move) {
    return [self = shared_from_this(), this, move] { act(move); };
  }

  void act(Move move) {
    switch (move) {
      case Move::answer:
        sendFromProxy("HTTP/1.1 200 OK\r\n\r\n");
        break;
      case Move::answerWithLeftover:
        sendFromProxy("HTTP/1.1 200 OK\r\n\r\nleftover");
        break;
      case Move::reject:
        sendFromProxy("HTTP/1.1 502 Bad Gateway\r\n\r\n");
        break;
      case Move::resetProxy:
        proxy()->reset();
        break;
      case Move::endProxy:
        hasProxyEnded_ = true;
        proxy()->endSending();
        break;
      case Move::endApplication:
        application()->send("request");
        application()->endSending();
        break;
      case Move::resetApplication:
        application()->reset();
        break;
    }
  }

  void sendFromProxy(std::string_view bytes) {
    if (!hasProxyEnded_) {
      proxy()->send(bytes);
    }
  }

  const SmallFlow plan_;
  bool hasProxyEnded_ = false;
};

struct Scenario {
  std::vector<SmallFlow> flows;
  // Handshake slots that are left.
  std::size_t slots = HistoryChecker::kMaxPending;
  std::size_t mostPreemptions = 0;
  // What happens besides, one item each.
  bool probeFails = false;
  bool probeSucceeds = false;
  bool stops = false;
};

// One provider and a few flows, in the order that a chooser decides.
class SmallRun {
 public:
  SmallRun(const Scenario& scenario, const RunQueue::Chooser& chooser)
      : scenario_(scenario),
        occupied_(HistoryChecker::kMaxPending - scenario.slots),
        checker_(HistoryChecker::Monitor::unreliable, occupied_),
        world_({.chooser =
                    [this, chooser](std::uint64_t bound) {
                      return isExploring_ && bound <= kMostAlternatives ? chooser(bound) : 0;
                    },
                .mostPreemptions = scenario.mostPreemptions},
               checker_),
        platform_(world_, 1, [this](std::uint32_t flow) { return scriptOf(flow); }) {
    // Its items would multiply the orders and have no part in them.
    platform_.setMonitored(false);
  }

  ~SmallRun() { tearDown(world_, provider_, scripts_); }
  SmallRun(const SmallRun&) = delete;
  SmallRun& operator=(const SmallRun&) = delete;

  std::optional<Violation> play() {
    world_.queue().post([this] { startProvider(); });
    advance(1ms);
    isExploring_ = true;
    for (std::uint32_t number = 1; number <= scenario_.flows.size(); ++number) {
      world_.queue().post([this, number] { offer(number); });
    }
    postSurroundings();
    advance(HistoryChecker::kHandshakeTimeout + 100ms);
    isExploring_ = false;
    for (const auto& [number, script] : scripts_) {
      script->windUp();
    }
    advance(HistoryChecker::kHandshakeTimeout + 100ms);
    world_.queue().post([this] {
      world_.record({.kind = HistoryKind::providerReleased});
      provider_.reset();
    });
    advance(1ms);
    if (world_.objects() != 0) {
      checker_.fail("something is left over");
    }
    checker_.finish();
    return checker_.violation();
  }

 private:
  FlowScript* scriptOf(std::uint32_t flow) const {
    const auto found = scripts_.find(flow);
    return found == scripts_.end() ? nullptr : found->second.get();
  }

  void startProvider() {
    provider_ = std::make_shared<PacketTunnelProvider>(platform_, platform_);
    PacketTunnelProviderTestPeer(*provider_).occupyHandshakeSlots(occupied_);
    world_.record({.kind = HistoryKind::providerMade});
    world_.record({.kind = HistoryKind::providerStarted});
    provider_->startProxy(std::nullopt, [](const platform::OptionalError&) {});
  }

  void offer(std::uint32_t number) {
    const auto script = std::make_shared<SmallScript>(world_, number, scenario_.flows[number - 1]);
    auto flow = std::make_shared<ObservedFlow>(world_, number, script->facts());
    scripts_.emplace(number, script);
    script->begin(flow->simulated(), flow->strand());
    world_.record({.kind = HistoryKind::flowOffered, .flow = number, .offered = &script->facts()});
    const auto provider = provider_;
    const bool isTaken = provider->handleNewFlow(std::move(flow));
    world_.record({.kind = HistoryKind::flowAnswered, .flow = number, .number = isTaken ? 1U : 0U});
  }

  // A probe of its own, at any moment between the others.
  void postProbe(bool isReachable) {
    world_.queue().post([this, isReachable] {
      platform_.sockets().setProxyListening(isReachable);
      PacketTunnelProviderTestPeer(*provider_).probe();
    });
  }

  void postSurroundings() {
    if (scenario_.probeFails) {
      postProbe(false);
    }
    if (scenario_.probeSucceeds) {
      postProbe(true);
    }
    if (scenario_.stops) {
      world_.queue().post([this] {
        world_.record({.kind = HistoryKind::providerStopped});
        provider_->stopProxy(platform::ProviderStopReason::userInitiated, [] {});
      });
    }
  }

  void advance(std::chrono::nanoseconds duration) {
    world_.queue().runUntil(
        [this] {
          world_.record({.kind = HistoryKind::stepDone});
          checker_.passTime(world_.queue().now());
          if (provider_) {
            const auto& admission = PacketTunnelProviderTestPeer(*provider_).admission();
            checker_.compareCounts({admission.pendingCount(), admission.establishedCount()});
          }
          return checker_.violation().has_value();
        },
        duration);
  }

  // What has more is how late a timer is, and no choice between items.
  static constexpr std::uint64_t kMostAlternatives = 100;

  const Scenario& scenario_;
  const std::size_t occupied_;
  HistoryChecker checker_;
  // The beginning and the end are not of interest.
  bool isExploring_ = false;
  World world_;
  SimulatorPlatform platform_;
  std::map<std::uint32_t, std::shared_ptr<FlowScript>> scripts_;
  std::shared_ptr<PacketTunnelProvider> provider_;
};

// Plays the scenario in every order that leaves the usual one at so many places; returns how many
// there are.
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

TEST(ScheduleExplorerTest, GoesThroughEverySequence) {
  ScheduleExplorer explorer;
  std::vector<std::uint64_t> sequences;
  const auto played = explorer.playAll([&] {
    const auto first = explorer.choose(2);
    sequences.push_back(first * 10 + explorer.choose(first == 0 ? 2 : 3));
  });

  EXPECT_EQ(played, 5U);
  EXPECT_EQ(sequences, (std::vector<std::uint64_t>{0, 1, 10, 11, 12}));
}

TEST(ScheduleExplorerTest, GoesThroughWhatIsCloseToTheUsualSequence) {
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
  const Scenario scenario{
      .flows = {{.moves = {Move::answerWithLeftover, Move::endApplication, Move::resetProxy}}}};

  EXPECT_GT(playOrders(scenario, 3), 100U);
}

TEST(InterleavingsTest, AnswerAgainstAResetOfTheApplicationWithAPreemption) {
  const Scenario scenario{.flows = {{.moves = {Move::answer, Move::resetApplication}}},
                          .mostPreemptions = 1};

  EXPECT_GT(playOrders(scenario, 2), 100U);
}

TEST(InterleavingsTest, AnswerAtTheMomentOfTheTimeout) {
  const Scenario scenario{
      .flows = {{.moves = {Move::answerWithLeftover, Move::endApplication}, .isAtDeadline = true}},
      .mostPreemptions = 1};

  EXPECT_GT(playOrders(scenario, 3), 100U);
}

TEST(InterleavingsTest, AcceptanceAgainstTheStartOfTheTunnel) {
  const Scenario scenario{.flows = {{.moves = {Move::reject}, .isAcceptedLate = true}},
                          .mostPreemptions = 2};

  EXPECT_GT(playOrders(scenario, 2), 100U);
}

TEST(InterleavingsTest, TwoFlowsAndOneSlot) {
  const Scenario scenario{.flows = {{.moves = {Move::reject}}, {.moves = {Move::answer}}},
                          .slots = 1};

  EXPECT_GT(playOrders(scenario, 3), 100U);
}

TEST(InterleavingsTest, TwoFlowsAndTwoSlots) {
  const Scenario scenario{.flows = {{.moves = {Move::reject}}, {.moves = {Move::resetProxy}}},
                          .slots = 2};

  EXPECT_GT(playOrders(scenario, 2), 100U);
}

TEST(InterleavingsTest, AFailureAgainstTheProbeAndANewFlow) {
  const Scenario scenario{.flows = {{.moves = {Move::resetProxy}}, {.moves = {}}},
                          .probeFails = true,
                          .probeSucceeds = true};

  EXPECT_GT(playOrders(scenario, 2), 100U);
}

TEST(InterleavingsTest, AStopAgainstEverything) {
  const Scenario scenario{.flows = {{.moves = {Move::answer, Move::endApplication}}},
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
        controller.tryAcquireHandshakeSlot("occupied " + std::to_string(i));
      }
      // Admitted, asked for again, established, asked for again, released, released again.
      constexpr int kSteps = 6;
      int done[2] = {0, 0};
      bool pending[2] = {false, false};
      bool established[2] = {false, false};
      while (done[0] < kSteps || done[1] < kSteps) {
        const std::size_t flow = done[0] == kSteps ? 1 : done[1] == kSteps ? 0 : explorer.choose(2);
        const std::string id = "flow " + std::to_string(flow);
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
        ASSERT_EQ(controller.establishedCount(),
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
        const bool isRunning = watchdog->state() == ProxyTunnelHandshakeWatchdog::State::running;
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
    ASSERT_EQ(watchdog->state(), ProxyTunnelHandshakeWatchdog::State::finished);
    fired += callbacks == 1 ? 1 : 0;
  });

  EXPECT_EQ(orders, 720U);
  EXPECT_GT(fired, 0U);
  EXPECT_LT(fired, orders);
}

// The gate alone: probes, and tunnels that fail, in every order; the latest word counts.
TEST(InterleavingsTest, TheGateFollowsTheLatestWord) {
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
