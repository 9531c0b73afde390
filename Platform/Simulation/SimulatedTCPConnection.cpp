#include "Platform/Simulation/SimulatedTCPConnection.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "Platform/Simulation/SimulatedError.h"

namespace ostravel::simulation {

namespace {

using platform::TCPConnectionState;

std::string_view nameOf(TCPConnectionState state) {
  switch (state) {
    case TCPConnectionState::invalid:
      return "invalid";
    case TCPConnectionState::connecting:
      return "connecting";
    case TCPConnectionState::waiting:
      return "waiting";
    case TCPConnectionState::connected:
      return "connected";
    case TCPConnectionState::disconnected:
      return "disconnected";
    case TCPConnectionState::cancelled:
      return "cancelled";
  }
  return "unknown";
}

void requireStateKeyPath(std::string_view keyPath) {
  if (keyPath != platform::StateObservers::kKeyPath) {
    throw std::logic_error("a connection has no observable key path \"" + std::string(keyPath) +
                           "\"");
  }
}

}  // namespace

SimulatedTCPConnection::SimulatedTCPConnection(RunState& run, std::string name,
                                               platform::HostEndpoint endpoint,
                                               platform::TLSPolicy tls)
    : run_(run),
      peer_(std::make_shared<SimulatedPeer>(run, std::move(name))),
      endpoint_(std::move(endpoint)),
      tls_(tls),
      lane_(std::make_shared<WorkLane>(peer_->name(), platform::DispatchQueueKind::serial)) {
  // The peer forgets both when this is destroyed.
  peer_->observe(
      [this](const platform::Error& failure) {
        changeStateLater(TCPConnectionState::disconnected, failure);
      },
      [this] { changeStateLater(TCPConnectionState::disconnected, std::nullopt); });
}

SimulatedTCPConnection::~SimulatedTCPConnection() {
  if (!wasCancelled_) {
    peer_->cutOff();
  }
  peer_->detach();
}

void SimulatedTCPConnection::accept() {
  if (run_.faults.connectionIsRefused()) {
    refuse();
    return;
  }
  changeStateLater(TCPConnectionState::connected, std::nullopt);
}

void SimulatedTCPConnection::refuse() {
  refuse(connectionRefused());
}

void SimulatedTCPConnection::refuse(platform::Error error) {
  changeStateLater(TCPConnectionState::disconnected, std::move(error));
}

void SimulatedTCPConnection::setState(TCPConnectionState state, platform::OptionalError error) {
  applyState(state, std::move(error));
}

void SimulatedTCPConnection::addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                                         std::string_view keyPath) {
  requireStateKeyPath(keyPath);
  if (observers_.add(std::move(observer))) {
    run_.queue.post(lane_, ItemKind::normal, [weakSelf = weak_from_this()] {
      if (const auto self = weakSelf.lock()) {
        self->observers_.notifyOfMissedChange(*self);
      }
    });
  }
}

void SimulatedTCPConnection::removeObserver(platform::KeyValueObserver& observer,
                                            std::string_view keyPath) {
  requireStateKeyPath(keyPath);
  observers_.remove(observer);
}

void SimulatedTCPConnection::read(std::size_t minimum, std::size_t maximum,
                                  platform::ReadCompletion completion) {
  peer_->read(minimum, maximum, std::move(completion));
}

void SimulatedTCPConnection::write(platform::Data data, platform::ErrorCompletion completion) {
  peer_->write(data, std::move(completion));
}

void SimulatedTCPConnection::cancel() {
  run_.journal.add(name(), "cancel");
  if (std::exchange(wasCancelled_, true)) {
    return;
  }
  peer_->abandon(operationCancelled());
  changeStateLater(TCPConnectionState::cancelled, std::nullopt);
}

void SimulatedTCPConnection::changeStateLater(TCPConnectionState state,
                                              platform::OptionalError error) {
  auto change = [weakSelf = weak_from_this(), state, error = std::move(error)] {
    if (const auto self = weakSelf.lock()) {
      self->applyState(state, error);
    }
  };
  lastChange_ = std::max(lastChange_, run_.queue.now() + run_.faults.latency());
  if (lastChange_ <= run_.queue.now()) {
    run_.queue.post(lane_, ItemKind::normal, std::move(change));
    return;
  }
  run_.queue.setAlarm(lastChange_, [&queue = run_.queue, lane = lane_, change = std::move(change)] {
    queue.post(lane, ItemKind::normal, change);
  });
}

void SimulatedTCPConnection::applyState(TCPConnectionState state, platform::OptionalError error) {
  const bool isFinal =
      state_ == TCPConnectionState::cancelled ||
      (state_ == TCPConnectionState::disconnected && state != TCPConnectionState::cancelled);
  if (isFinal || state == state_) {
    return;
  }
  state_ = state;
  run_.journal.add(name(), "state " + std::string(nameOf(state)));
  if (state == TCPConnectionState::connected) {
    peer_->establish();
  }
  if (state == TCPConnectionState::disconnected) {
    error_ = error;
    peer_->disconnect(error);
  }
  // An observer may release this connection.
  const auto self = shared_from_this();
  observers_.notify(*self);
}

}  // namespace ostravel::simulation
