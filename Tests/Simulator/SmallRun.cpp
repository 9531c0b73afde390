#include "Tests/Simulator/SmallRun.h"

#include <functional>
#include <string_view>

#include "Tests/Extension/Support/PacketTunnelProviderTestPeer.h"
#include "Tests/Simulator/ObservedFlow.h"
#include "Tests/Simulator/TearDown.h"

namespace ostravel::simulator {

namespace {

using namespace std::chrono_literals;

// A choice among more alternatives is how late a timer is, not which item runs.
constexpr std::uint64_t kMostAlternatives = 100;

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
    if (plan_.isAtDeadline || plan_.isEarly) {
      postSteps(plan_.isAtDeadline ? HistoryChecker::kHandshakeTimeout : 0ns);
    }
  }

  void receiveRequest() override {
    if (!plan_.isAtDeadline && !plan_.isEarly) {
      postSteps(0ns);
    }
  }

 private:
  void postSteps(std::chrono::nanoseconds delay) {
    for (const Step& step : plan_.steps) {
      world().queue().postAfter(delay + step.delay,
                                [self = shared_from_this(), this, &step] { act(step); });
    }
  }

  void act(const Step& step) {
    switch (step.move) {
      case Move::answer:
        sendFromProxy("HTTP/1.1 200 OK\r\n\r\n");
        break;
      case Move::answerWithLeftover:
        sendFromProxy("HTTP/1.1 200 OK\r\n\r\nleftover");
        break;
      case Move::reject:
        sendFromProxy("HTTP/1.1 502 Bad Gateway\r\n\r\n");
        break;
      case Move::sendFromProxy:
        sendFromProxy(step.bytes);
        break;
      case Move::resetProxy:
        proxy()->reset();
        break;
      case Move::endProxy:
        hasProxyEnded_ = true;
        proxy()->endSending();
        break;
      case Move::sendFromApplication:
        sendFromApplication(step.bytes);
        break;
      case Move::sendAndEndApplication:
        sendFromApplication("request");
        endApplication();
        break;
      case Move::endApplication:
        endApplication();
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

  void sendFromApplication(std::string_view bytes) {
    if (!hasApplicationEnded_) {
      application()->send(bytes);
    }
  }

  void endApplication() {
    hasApplicationEnded_ = true;
    application()->endSending();
  }

  const SmallFlow plan_;
  bool hasProxyEnded_ = false;
  bool hasApplicationEnded_ = false;
};

}  // namespace

SmallRun::SmallRun(const Scenario& scenario, const simulation::RunQueue::Chooser& chooser)
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
  // Its items would multiply the orders without affecting them.
  platform_.setMonitored(false);
}

SmallRun::~SmallRun() {
  tearDown(world_, provider_, scripts_);
}

std::optional<Violation> SmallRun::play() {
  world_.queue().post([this] { startProvider(); });
  advance(1ms);
  isExploring_ = true;
  for (std::uint32_t number = 1; number <= scenario_.flows.size(); ++number) {
    world_.queue().post([this, number] { offer(number); });
  }
  postSurroundings();
  advance(scenario_.duration);
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

FlowScript* SmallRun::scriptOf(std::uint32_t flow) const {
  const auto found = scripts_.find(flow);
  return found == scripts_.end() ? nullptr : found->second.get();
}

void SmallRun::startProvider() {
  provider_ = std::make_shared<PacketTunnelProvider>(platform_, platform_);
  PacketTunnelProviderTestPeer(*provider_).occupyHandshakeSlots(occupied_);
  world_.record({.kind = HistoryKind::providerMade});
  world_.record({.kind = HistoryKind::providerStarted});
  provider_->startProxy(std::nullopt, [](const platform::OptionalError&) {});
}

void SmallRun::offer(std::uint32_t number) {
  const auto script = std::make_shared<SmallScript>(world_, number, scenario_.flows[number - 1]);
  auto flow = std::make_shared<ObservedFlow>(world_, number, script->facts());
  scripts_.emplace(number, script);
  script->begin(flow->simulated(), flow->strand());
  world_.record({.kind = HistoryKind::flowOffered, .flow = number, .offered = &script->facts()});
  const auto provider = provider_;
  const bool isTaken = provider->handleNewFlow(std::move(flow));
  world_.record({.kind = HistoryKind::flowAnswered, .flow = number, .number = isTaken ? 1U : 0U});
}

// An additional probe, at any moment between the others; a stopped provider has none.
void SmallRun::postProbe(bool isReachable) {
  world_.queue().post([this, isReachable] {
    if (isStopped_) {
      return;
    }
    platform_.sockets().setProxyListening(isReachable);
    PacketTunnelProviderTestPeer(*provider_).probe();
  });
}

void SmallRun::postSurroundings() {
  if (scenario_.probeFails) {
    postProbe(false);
  }
  if (scenario_.probeSucceeds) {
    postProbe(true);
  }
  if (scenario_.stops) {
    world_.queue().post([this] {
      isStopped_ = true;
      world_.record({.kind = HistoryKind::providerStopped});
      provider_->stopProxy(platform::ProviderStopReason::userInitiated, [] {});
    });
  }
}

void SmallRun::advance(std::chrono::nanoseconds duration) {
  world_.queue().runUntil(
      [this] {
        world_.record({.kind = HistoryKind::stepDone});
        checker_.passTime(world_.queue().now());
        if (provider_) {
          const PacketTunnelProviderTestPeer peer(*provider_);
          checker_.compareCounts({peer.admission().pendingCount(), peer.establishedCount()});
        }
        return checker_.violation().has_value();
      },
      duration);
}

}  // namespace ostravel::simulator
