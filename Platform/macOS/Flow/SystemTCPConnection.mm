#import "Platform/macOS/Flow/SystemTCPConnection.h"

#include <cerrno>
#include <utility>

#include "Base/ProgrammingError.h"
#import "Platform/macOS/Dispatch/CompletionBlocks.h"
#import "Platform/macOS/Flow/ConnectionStateObservation.h"
#import "Platform/macOS/Foundation/FoundationData.h"
#import "Platform/macOS/Foundation/FoundationError.h"

namespace ostravel::macos {

using platform::TCPConnectionState;

namespace {

// nil answers nothing.
NSError* notConnected() {
  return [NSError errorWithDomain:NSPOSIXErrorDomain code:ENOTCONN userInfo:nil];
}

void requireStateKeyPath(std::string_view keyPath) {
  if (keyPath != platform::StateObservers::kKeyPath) {
    programmingError("a connection has no observable property but its state");
  }
}

}  // namespace

std::shared_ptr<SystemTCPConnection> SystemTCPConnection::make(NWTCPConnection* connection) {
  const std::shared_ptr<SystemTCPConnection> adapter(new SystemTCPConnection(connection));
  adapter->observation_ = startObservingState(connection, adapter);
  if (adapter->state() > TCPConnectionState::connecting) {
    adapter->stateDidChange();
  }
  return adapter;
}

SystemTCPConnection::SystemTCPConnection(NWTCPConnection* connection)
    : connection_(Reference<NWTCPConnection*>::retaining(connection)),
      queue_(CompletionQueue::current()) {}

SystemTCPConnection::~SystemTCPConnection() {
  stopObservingState(connection_.get(), observation_);
  // Releasing a connection is not documented to end it.
  cancel();
}

TCPConnectionState SystemTCPConnection::state() const {
  switch ([connection_.get() state]) {
    case NWTCPConnectionStateInvalid:
      return TCPConnectionState::invalid;
    case NWTCPConnectionStateConnecting:
      return TCPConnectionState::connecting;
    case NWTCPConnectionStateWaiting:
      return TCPConnectionState::waiting;
    case NWTCPConnectionStateConnected:
      return TCPConnectionState::connected;
    case NWTCPConnectionStateDisconnected:
      return TCPConnectionState::disconnected;
    case NWTCPConnectionStateCancelled:
      return TCPConnectionState::cancelled;
  }
  // The system may define further states, which correspond to none of these.
  return TCPConnectionState::invalid;
}

platform::OptionalError SystemTCPConnection::error() const {
  @autoreleasepool {
    return errorFrom([connection_.get() error]);
  }
}

void SystemTCPConnection::addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                                      std::string_view keyPath) {
  requireStateKeyPath(keyPath);
  if (observers_.add(std::move(observer))) {
    queue_->run([weakSelf = weak_from_this()] {
      if (const auto self = weakSelf.lock()) {
        self->observers_.notifyOfMissedChange(*self);
      }
    });
  }
}

void SystemTCPConnection::removeObserver(platform::KeyValueObserver& observer,
                                         std::string_view keyPath) {
  requireStateKeyPath(keyPath);
  observers_.remove(observer);
}

void SystemTCPConnection::stateDidChange() {
  observers_.notify(*this);
}

void SystemTCPConnection::read(std::size_t minimum, std::size_t maximum,
                               platform::ReadCompletion completion) {
  reading_.begin("a read of a stream that is being read");
  @autoreleasepool {
    const auto handler = readBlock(
        queue_, weak_from_this(),
        endingOperation(weak_from_this(), &SystemTCPConnection::reading_, std::move(completion)));
    if (connection_.get() == nil) {
      handler.get()(nil, notConnected());
      return;
    }
    [connection_.get() readMinimumLength:minimum
                           maximumLength:maximum
                       completionHandler:handler.get()];
  }
}

void SystemTCPConnection::write(platform::Data data, platform::ErrorCompletion completion) {
  writing_.begin("a write to a stream that is being written to");
  @autoreleasepool {
    const auto handler = errorBlock(
        queue_, weak_from_this(),
        endingOperation(weak_from_this(), &SystemTCPConnection::writing_, std::move(completion)));
    if (connection_.get() == nil) {
      handler.get()(notConnected());
      return;
    }
    [connection_.get() write:makeNSData(data) completionHandler:handler.get()];
  }
}

void SystemTCPConnection::cancel() {
  @autoreleasepool {
    [connection_.get() cancel];
  }
}

}  // namespace ostravel::macos
