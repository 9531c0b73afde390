#include "Tests/Simulator/SimulatorRun.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Tests/Extension/Support/PacketTunnelProviderTestPeer.h"
#include "Tests/Simulator/FlowScript.h"
#include "Tests/Simulator/ObservedFlow.h"
#include "Tests/Simulator/RandomStreams.h"
#include "Tests/Simulator/SimulatorPlatform.h"
#include "Tests/Simulator/TearDown.h"

namespace ostravel::simulator {

namespace {

using namespace std::chrono_literals;
using simulation::SeededRandom;

// After the faults have stopped, pending operations may still be this late; then every handshake is
// decided within its time-out.
constexpr auto kCalm = 13s;

HistoryChecker::Monitor monitorOf(const FaultMenu& faults) {
  const bool isReliable = !faults.has(Fault::absentMonitor) && !faults.has(Fault::failingMonitor) &&
                          !faults.has(Fault::stalledMonitor) && !faults.has(Fault::socketErrors);
  return isReliable ? HistoryChecker::Monitor::reliable : HistoryChecker::Monitor::unreliable;
}

class Run {
 public:
  Run(const RunOptions& options, const FaultMenu& faults)
      : options_(options),
        checker_(monitorOf(faults)),
        world_({options.seed, faults, options.canary, options.trace, nullptr}, checker_),
        platform_(world_, options.seed, [this](std::uint32_t flow) { return scriptOf(flow); }),
        random_(options.seed, streams::kSurroundings) {
    if (options_.only) {
      numbers_ = *options_.only;
    } else {
      for (std::uint32_t number = 1; number <= options_.flows; ++number) {
        numbers_.push_back(number);
      }
    }
  }

  ~Run() { tearDown(); }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  void play() {
    try {
      playAll();
    } catch (const std::exception& error) {
      checker_.fail(std::string("the seam is misused: ") + error.what());
    }
  }

  RunResult result() const {
    RunResult result;
    result.faults = world_.faults();
    result.digest = world_.history().digest();
    result.violation = checker_.violation();
    result.trace = world_.history().trace();
    result.counts = {.flows = offered_,
                     .tunnels = checker_.tunnels(),
                     .successes = checker_.successes(),
                     .timeouts = checker_.timeouts(),
                     .rejections = checker_.rejections(),
                     .mostPending = checker_.mostPending()};
    return result;
  }

 private:
  void playAll() {
    drawPace();
    platform_.setMonitored(!world_.has(Fault::absentMonitor) || random_.below(4) == 0);
    world_.queue().post([this] {
      makeProvider();
      startProvider();
    });
    world_.queue().postAfter(std::chrono::microseconds(random_.below(2000)),
                             [this] { offerNext(); });
    world_.queue().postAfter(weatherDelay(), [this] { changeWeather(); });
    // Longer than any run of this many flows is.
    advanceUntil([this] { return next_ == numbers_.size(); }, 24h * 365);
    advanceUntil([] { return false; }, std::chrono::milliseconds(random_.below(7000)));
    world_.queue().post([this] { calmDown(); });
    advanceUntil([] { return false; }, kCalm);
    world_.queue().post([this] { releaseProvider(); });
    advanceUntil([] { return false; }, 1s);
    judgeEnd();
  }

  void drawPace() {
    constexpr std::array<std::uint64_t, 4> kPauses = {500, 5'000, 30'000, 200'000};
    pauseMicroseconds_ = world_.has(Fault::bursts) && random_.below(2) == 0
                             ? 0
                             : kPauses[random_.below(kPauses.size())];
  }

  // Runs items, and checks the invariants after each.
  void advanceUntil(const std::function<bool()>& predicate, std::chrono::nanoseconds limit) {
    world_.queue().runUntil(
        [this, &predicate] {
          finishStep();
          return checker_.violation().has_value() || predicate();
        },
        limit);
  }

  void finishStep() {
    for (const std::uint32_t flow : world_.takeEndedFlows()) {
      scripts_.erase(flow);
    }
    world_.record({.kind = HistoryKind::stepDone});
    const auto now = world_.queue().now();
    if (now != lastMoment_) {
      lastMoment_ = now;
      checker_.passTime(now);
    }
    if (provider_) {
      const PacketTunnelProviderTestPeer peer(*provider_);
      checker_.compareCounts({peer.admission().pendingCount(), peer.establishedCount()});
    }
  }

  // The provider

  void makeProvider() {
    provider_ = std::make_shared<PacketTunnelProvider>(platform_, platform_);
    world_.record({.kind = HistoryKind::providerMade});
  }

  void startProvider() {
    world_.record({.kind = HistoryKind::providerStarted, .number = isMonitored()});
    const auto provider = provider_;
    provider->startProxy(std::nullopt, [](const platform::OptionalError&) {});
  }

  std::uint64_t isMonitored() const { return platform_.protocolConfiguration() ? 1 : 0; }

  void stopProvider() {
    world_.record({.kind = HistoryKind::providerStopped, .number = isMonitored()});
    const auto provider = provider_;
    provider->stopProxy(platform::ProviderStopReason::userInitiated, [] {});
  }

  void releaseProvider() {
    world_.record({.kind = HistoryKind::providerReleased});
    provider_.reset();
  }

  // Flows

  FlowScript* scriptOf(std::uint32_t flow) const {
    const auto found = scripts_.find(flow);
    return found == scripts_.end() ? nullptr : found->second.get();
  }

  void offerNext() {
    if (next_ == numbers_.size()) {
      return;
    }
    const std::uint32_t number = numbers_[next_++];
    if (provider_) {
      offer(number);
    }
    const auto pause = pauseMicroseconds_ == 0 ? 0 : random_.below(2 * pauseMicroseconds_);
    world_.queue().postAfter(std::chrono::microseconds(pause), [this] { offerNext(); });
  }

  void offer(std::uint32_t number) {
    ++offered_;
    const auto script = std::make_shared<FlowScript>(world_, options_.seed, number);
    std::shared_ptr<platform::AppProxyFlow> flow;
    switch (script->protocol()) {
      case FlowScript::Protocol::tcp: {
        const auto tcpFlow = std::make_shared<ObservedFlow>(world_, number, script->facts());
        scripts_.emplace(number, script);
        script->begin(tcpFlow->simulated(), tcpFlow->strand());
        flow = tcpFlow;
        break;
      }
      case FlowScript::Protocol::udp:
        flow = std::make_shared<ObservedUDPFlow>(world_, number, script->facts());
        break;
      case FlowScript::Protocol::unknown:
        flow = std::make_shared<ObservedUnknownFlow>(world_, number, script->facts());
        break;
    }
    world_.record({.kind = HistoryKind::flowOffered, .flow = number, .offered = &script->facts()});
    const auto provider = provider_;
    const bool isTaken = provider->handleNewFlow(std::move(flow));
    world_.record({.kind = HistoryKind::flowAnswered, .flow = number, .number = isTaken ? 1U : 0U});
    judgeCache(*provider, *script);
  }

  // Occasional changes that affect all flows, while there are new ones.

  std::chrono::milliseconds weatherDelay() {
    return std::chrono::milliseconds(1 + random_.below(3000));
  }

  // A decision is remembered for 30 seconds at most, as the clock of the day counts them.
  void judgeCache(PacketTunnelProvider& provider, const FlowScript& script) {
    if (world_.faults().has(Fault::clockJumps) || !script.facts().hasEndpoint) {
      return;
    }
    const bool isUDP = script.protocol() == FlowScript::Protocol::udp;
    const std::string key = std::string(platform_.text().trimmed(script.facts().identifier)) + ":" +
                            script.facts().host + (isUDP ? ":udp" : ":tcp");
    const auto expiry = PacketTunnelProviderTestPeer(provider).cachedExpiry(key);
    if (expiry && *expiry > platform_.clock().secondsSince1970() + 30.0) {
      checker_.fail("a decision is remembered for too long", script.number());
    }
  }

  void changeWeather() {
    if (next_ == numbers_.size()) {
      return;
    }
    if (strikes(Fault::flappingProxy, 2)) {
      platform_.sockets().setProxyListening(!platform_.sockets().isProxyListening());
    }
    if (strikes(Fault::absentMonitor, 3)) {
      platform_.sockets().setMonitorListening(random_.below(2) == 0);
    }
    if (strikes(Fault::stalledMonitor, 3)) {
      platform_.stallMonitor(random_.below(2) == 0);
    }
    if (strikes(Fault::clockJumps, 3)) {
      platform_.jumpClock(static_cast<double>(random_.below(200)) - 100.0);
    }
    if (strikes(Fault::suspensions, 3)) {
      world_.spend(std::chrono::milliseconds(random_.below(20000)));
    }
    changeProvider();
    world_.queue().postAfter(weatherDelay(), [this] { changeWeather(); });
  }

  void changeProvider() {
    if (!provider_ || isStopped_) {
      if (!provider_) {
        makeProvider();
      }
      isStopped_ = false;
      startProvider();
      return;
    }
    if (strikes(Fault::stops, 4)) {
      isStopped_ = true;
      stopProvider();
    }
    if (strikes(Fault::replacements, 4)) {
      if (!isStopped_ && random_.below(2) == 0) {
        stopProvider();
      }
      isStopped_ = false;
      releaseProvider();
    }
  }

  bool strikes(Fault fault, std::uint64_t odds) {
    return world_.has(fault) && random_.below(odds) == 0;
  }

  // Everything works from now on, and both sides of every flow end.
  void calmDown() {
    world_.stopFaults();
    platform_.sockets().setProxyListening(true);
    platform_.sockets().setMonitorListening(true);
    platform_.stallMonitor(false);
    std::vector<std::uint32_t> numbers;
    for (const auto& [number, script] : scripts_) {
      numbers.push_back(number);
    }
    // The order of the table has no meaning.
    std::sort(numbers.begin(), numbers.end());
    for (const std::uint32_t number : numbers) {
      scripts_.at(number)->windUp();
    }
  }

  void judgeEnd() {
    if (checker_.violation()) {
      return;
    }
    if (world_.objects() != 0) {
      checker_.fail(std::to_string(world_.objects()) + " flows and connections are left over");
    }
    if (platform_.sockets().openDescriptors() != 0) {
      checker_.fail("a socket is left open");
    }
    checker_.finish();
  }

  // What a run that was cut short leaves behind owns itself.
  void tearDown() { simulator::tearDown(world_, provider_, scripts_); }

  const RunOptions& options_;
  HistoryChecker checker_;
  mutable World world_;
  SimulatorPlatform platform_;
  SeededRandom random_;
  std::vector<std::uint32_t> numbers_;
  std::size_t next_ = 0;
  std::size_t offered_ = 0;
  std::uint64_t pauseMicroseconds_ = 0;
  std::chrono::nanoseconds lastMoment_{0};
  std::unordered_map<std::uint32_t, std::shared_ptr<FlowScript>> scripts_;
  std::shared_ptr<PacketTunnelProvider> provider_;
  bool isStopped_ = false;
};

}  // namespace

RunResult play(const RunOptions& options) {
  Run run(options, options.faults.value_or(FaultMenu::drawn(options.seed)));
  run.play();
  return run.result();
}

}  // namespace ostravel::simulator
