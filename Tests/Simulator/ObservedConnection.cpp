#include "Tests/Simulator/ObservedConnection.h"

#include <optional>
#include <utility>

#include "Tests/Simulator/Completions.h"

namespace ostravel::simulator {

using platform::KeyValueObserver;
using platform::OptionalError;

// Between the simulated connection and the system's observer.
class ObservedConnection::Notification final : public KeyValueObserver,
                                               public std::enable_shared_from_this<Notification> {
 public:
  Notification(ObservedConnection& connection, std::weak_ptr<KeyValueObserver> observer)
      : connection_(connection), observer_(std::move(observer)) {}

  void observeValue(std::optional<std::string_view> keyPath,
                    platform::Observable* /*object*/) override {
    // Only completions are serialised: a change of state is reported by the thread that makes it.
    if (connection_.strand_->isBusy() && connection_.world_.strikes(Fault::preemption, 2)) {
      const ActorScope actor(connection_.world_, connection_.flow_);
      notify(*keyPath);
      return;
    }
    connection_.strand_->run(connection_.flow_,
                             [weakSelf = weak_from_this(), keyPath = std::string(*keyPath)] {
                               if (const auto self = weakSelf.lock()) {
                                 self->notify(keyPath);
                               }
                             });
  }

 private:
  void notify(std::string_view keyPath) {
    const auto observer = observer_.lock();
    if (!observer) {
      return;
    }
    const auto error = connection_.error();
    connection_.world_.record(
        {.kind = HistoryKind::stateNotified,
         .flow = connection_.flow_,
         .number = static_cast<std::uint64_t>(connection_.connection_->state()),
         .error = pointerTo(error)});
    observer->observeValue(keyPath, &connection_);
  }

  // Exists as long as it holds this object.
  ObservedConnection& connection_;
  const std::weak_ptr<KeyValueObserver> observer_;
};

ObservedConnection::ObservedConnection(
    World& world, std::uint32_t flow, std::shared_ptr<Strand> strand,
    std::shared_ptr<simulation::SimulatedTCPConnection> connection, std::function<void()> onRequest)
    : world_(world),
      flow_(flow),
      strand_(std::move(strand)),
      connection_(std::move(connection)),
      onRequest_(std::move(onRequest)) {
  world_.addObject();
}

ObservedConnection::~ObservedConnection() {
  world_.removeObject();
  world_.record({.kind = HistoryKind::connectionDestroyed, .flow = flow_});
}

platform::TCPConnectionState ObservedConnection::state() const {
  return connection_->state();
}

void ObservedConnection::addObserver(std::weak_ptr<KeyValueObserver> observer,
                                     std::string_view keyPath) {
  world_.preemptionPoint();
  world_.record({.kind = HistoryKind::observerAdded,
                 .flow = flow_,
                 .number = static_cast<std::uint64_t>(connection_->state())});
  notification_ = std::make_shared<Notification>(*this, std::move(observer));
  connection_->addObserver(notification_, keyPath);
  // The state may change before the system knows that it observes.
  world_.preemptionPoint();
  world_.record({.kind = HistoryKind::observerReady,
                 .flow = flow_,
                 .number = static_cast<std::uint64_t>(connection_->state())});
}

void ObservedConnection::removeObserver(KeyValueObserver& /*observer*/, std::string_view keyPath) {
  world_.preemptionPoint();
  world_.record({.kind = HistoryKind::observerRemoved, .flow = flow_});
  if (const auto notification = std::exchange(notification_, nullptr)) {
    connection_->removeObserver(*notification, keyPath);
  }
}

void ObservedConnection::read(std::size_t minimum, std::size_t maximum,
                              platform::ReadCompletion completion) {
  world_.record({.kind = HistoryKind::connectionRead, .flow = flow_, .number = maximum});
  world_.preemptionPoint();
  connection_->read(
      minimum, maximum,
      observed(world_, strand_, HistoryKind::connectionReadDone, flow_, std::move(completion)));
}

void ObservedConnection::write(platform::Data data, platform::ErrorCompletion completion) {
  world_.record({.kind = HistoryKind::connectionWrite,
                 .flow = flow_,
                 .number = static_cast<std::uint64_t>(connection_->state()),
                 .bytes = viewOf(data)});
  world_.preemptionPoint();
  auto noted =
      observed(world_, strand_, HistoryKind::connectionWriteDone, flow_, std::move(completion));
  connection_->write(std::move(data), [onRequest = std::exchange(onRequest_, nullptr),
                                       noted = std::move(noted)](OptionalError error) {
    const bool hasArrived = !error;
    noted(std::move(error));
    if (hasArrived && onRequest) {
      onRequest();
    }
  });
}

void ObservedConnection::cancel() {
  world_.record({.kind = HistoryKind::connectionCancel, .flow = flow_});
  world_.preemptionPoint();
  connection_->cancel();
}

}  // namespace ostravel::simulator
