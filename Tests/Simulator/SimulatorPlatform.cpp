#include "Tests/Simulator/SimulatorPlatform.h"

#include <stdexcept>
#include <utility>

#include "Platform/Simulation/Schedule/SimulatedClock.h"
#include "Platform/Simulation/Schedule/SimulatedTimer.h"
#include "Tests/Simulator/ObservedConnection.h"
#include "Tests/Simulator/RandomStreams.h"

namespace ostravel::simulator {

namespace {

constexpr std::string_view kWatchdogLabel = "com.ostravel.handshakeWatchdog";
constexpr std::string_view kMonitorLabel = "com.ostravel.proxyTunnelMonitoring";

// The watchdog's timer: its expiry is recorded. Arming and cancelling it are not preemption points,
// because the watchdog holds its lock meanwhile.
class WatchdogTimer final : public platform::DispatchTimer {
 public:
  WatchdogTimer(World& world, std::uint32_t flow, std::shared_ptr<platform::DispatchQueue> queue)
      : world_(world),
        flow_(flow),
        isSilent_(world.strikesCanary(Canary::silentWatchdog)),
        timer_(world.queue(), std::move(queue)) {}

  void setEventHandler(Handler handler) override {
    timer_.setEventHandler([&world = world_, flow = flow_, handler = std::move(handler)] {
      const ActorScope actor(world, flow);
      world.record({.kind = HistoryKind::timeoutFired, .flow = flow});
      handler();
    });
  }
  void schedule(std::chrono::nanoseconds delay, std::optional<std::chrono::nanoseconds> interval,
                std::chrono::nanoseconds leeway) override {
    timer_.schedule(delay, interval, leeway);
  }
  void resume() override {
    if (!isSilent_) {
      timer_.resume();
    }
  }
  void cancel() override { timer_.cancel(); }

 private:
  World& world_;
  const std::uint32_t flow_;
  const bool isSilent_;
  simulation::SimulatedTimer timer_;
};

}  // namespace

class SimulatorPlatform::RunLog final : public platform::Log {
 public:
  explicit RunLog(World& world) : world_(world) {}

 protected:
  void write(platform::LogLevel level, std::string_view format,
             std::span<const platform::LogArgument> /*arguments*/) override {
    world_.record({.kind = HistoryKind::logLine,
                   .flow = world_.actor(),
                   .number = static_cast<std::uint64_t>(level),
                   .bytes = format});
    world_.preemptionPoint();
  }

 private:
  World& world_;
};

class SimulatorPlatform::RunClock final : public platform::Clock {
 public:
  explicit RunClock(World& world) : world_(world) {}

  void jump(double seconds) { offset_ += seconds; }

  double secondsSince1970() const override {
    const std::chrono::duration<double> elapsed = world_.queue().now();
    return simulation::SimulatedClock::kStart + offset_ + elapsed.count();
  }

 private:
  World& world_;
  double offset_ = 0.0;
};

class SimulatorPlatform::RunIdentifiers final : public platform::UUIDSource {
 public:
  RunIdentifiers(World& world, std::uint64_t seed, const ScriptSource& scriptOf)
      : world_(world),
        source_(simulation::SeededRandom(seed, streams::kIdentifiers)),
        scriptOf_(scriptOf) {}

  std::string randomUUID() override {
    std::string identifier = source_.randomUUID();
    if (FlowScript* const script = scriptOf_(world_.actor())) {
      script->setIdentifier(identifier);
    }
    return identifier;
  }

 private:
  World& world_;
  simulation::SimulatedUUIDSource source_;
  const ScriptSource& scriptOf_;
};

SimulatorPlatform::SimulatorPlatform(World& world, std::uint64_t seed, ScriptSource scriptOf)
    : world_(world),
      scriptOf_(std::move(scriptOf)),
      sockets_(world),
      log_(std::make_shared<RunLog>(world)),
      clock_(std::make_unique<RunClock>(world)),
      identifiers_(std::make_unique<RunIdentifiers>(world, seed, scriptOf_)) {}

SimulatorPlatform::~SimulatorPlatform() = default;

void SimulatorPlatform::jumpClock(double seconds) {
  clock_->jump(seconds);
}

void SimulatorPlatform::stallMonitor(bool stalled) {
  isMonitorStalled_ = stalled;
  if (const auto queue = monitorQueue_.lock()) {
    queue->setStalled(stalled);
  }
}

std::shared_ptr<platform::DispatchQueue> SimulatorPlatform::makeQueue(
    std::string label, platform::DispatchQueueKind kind) {
  if (label == kWatchdogLabel) {
    return std::make_shared<simulation::SimulatedQueue>(world_.queue(), std::move(label), kind);
  }
  const bool isMonitorQueue = label == kMonitorLabel;
  auto queue = std::make_shared<ObservedQueue>(world_, std::move(label), kind);
  if (isMonitorQueue) {
    queue->setStalled(isMonitorStalled_);
    monitorQueue_ = queue;
  }
  return queue;
}

std::shared_ptr<platform::DispatchTimer> SimulatorPlatform::makeTimer(
    std::shared_ptr<platform::DispatchQueue> queue) {
  world_.preemptionPoint();
  if (queue->label() == kWatchdogLabel) {
    return std::make_shared<WatchdogTimer>(world_, world_.actor(), std::move(queue));
  }
  return std::make_shared<simulation::SimulatedTimer>(world_.queue(), std::move(queue));
}

std::shared_ptr<platform::Log> SimulatorPlatform::makeLog(std::string /*subsystem*/,
                                                          std::string /*category*/) {
  return log_;
}

platform::Log& SimulatorPlatform::defaultLog() {
  return *log_;
}

void SimulatorPlatform::systemLog(std::string_view line) {
  world_.record({.kind = HistoryKind::logLine, .bytes = line});
}

const platform::Clock& SimulatorPlatform::clock() const {
  world_.preemptionPoint();
  return *clock_;
}

platform::UUIDSource& SimulatorPlatform::uuidSource() {
  return *identifiers_;
}

void SimulatorPlatform::setTunnelNetworkSettings(
    platform::TransparentProxyNetworkSettings /*settings*/, platform::ErrorCompletion completion) {
  world_.queue().post([completion = std::move(completion)] { completion(std::nullopt); });
}

std::shared_ptr<platform::TCPConnection> SimulatorPlatform::createTCPConnection(
    const platform::HostEndpoint& endpoint, platform::TLSPolicy tls) {
  const std::uint32_t flow = world_.actor();
  FlowScript* const script = scriptOf_(flow);
  if (script == nullptr) {
    throw std::logic_error("a connection is made for no flow");
  }
  world_.record({.kind = HistoryKind::connectionMade, .flow = flow, .bytes = script->identifier()});
  if (endpoint.hostname != "127.0.0.1" || endpoint.port != "8080" ||
      tls != platform::TLSPolicy::disabled) {
    throw std::logic_error("a connection is made to something other than the local proxy");
  }
  const auto simulated =
      std::make_shared<simulation::SimulatedTCPConnection>(world_.run(), "", endpoint, tls);
  const auto owner = script->shared_from_this();
  auto connection = std::make_shared<ObservedConnection>(
      world_, flow, script->strand(), simulated, [weakOwner = std::weak_ptr<FlowScript>(owner)] {
        if (const auto strongOwner = weakOwner.lock()) {
          strongOwner->receiveRequest();
        }
      });
  owner->connect(simulated);
  return connection;
}

std::optional<platform::TunnelProviderProtocol> SimulatorPlatform::protocolConfiguration() const {
  if (!isMonitored_) {
    return std::nullopt;
  }
  platform::ProviderConfiguration configuration;
  configuration.emplace("monitoringSocketPath", std::string(kMonitoringPath));
  return platform::TunnelProviderProtocol{std::move(configuration)};
}

}  // namespace ostravel::simulator
