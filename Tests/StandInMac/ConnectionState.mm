#import "Tests/StandInMac/ConnectionState.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "Tests/StandInMac/SystemBehaviour.h"
#include "Tests/StandInMac/WorkerPool.h"

namespace ostravel::standin {

namespace {

NSError* posixError(int error) {
  return error == 0 ? nil : [NSError errorWithDomain:NSPOSIXErrorDomain code:error userInfo:nil];
}

}  // namespace

NWTCPConnection* ConnectionState::makeConnection() {
  NWTCPConnection* const object = [NWTCPConnection alloc];
  const auto state = std::make_shared<ConnectionState>();
  state->object_ = object;
  object->_standInStorage = state;
  return [[object init] autorelease];
}

NWTCPConnection* ConnectionState::makeConnection(std::vector<std::byte> address) {
  NWTCPConnection* const object = makeConnection();
  const auto state = std::static_pointer_cast<ConnectionState>(object->_standInStorage);
  const int family = static_cast<int>(std::to_integer<unsigned>(address[0]));
  state->socket_ = std::make_shared<StreamSocket>(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  state->state_ = NWTCPConnectionStateConnecting;
  if (systemBehaviour().refusesConnections) {
    runOnWorker([state] { state->finishConnecting(ECONNREFUSED); });
    return object;
  }
  state->socket_->connect(std::move(address),
                          [state](int error) { state->finishConnecting(error); });
  return object;
}

macos::Reference<NWTCPConnection*> ConnectionState::object() {
  const std::lock_guard guard(lock_);
  return life_.tryRetain() ? macos::Reference<NWTCPConnection*>::adopting(object_)
                           : macos::Reference<NWTCPConnection*>();
}

bool ConnectionState::releaseObject() {
  const bool isLast = life_.release();
  // One reference belongs to the notification; it is unknown whether anything holds it on a Mac.
  if (life_.references() == 1 && notifyingThread_ == std::this_thread::get_id()) {
    std::fputs("BROKEN RULE: a connection was released inside its own notification\n", stderr);
    std::abort();
  }
  return isLast;
}

void ConnectionState::objectWasReleased() {
  {
    const std::lock_guard guard(lock_);
    object_ = nil;
    if (socket_) {
      systemBehaviour().closesReleasedConnections ? socket_->close() : socket_->leaveOpen();
    }
  }
  endWaiting(ECANCELED);
}

NWTCPConnectionState ConnectionState::state() const {
  const std::lock_guard guard(lock_);
  return state_;
}

NSError* ConnectionState::error() const {
  const std::lock_guard guard(lock_);
  return [[error_.get() retain] autorelease];
}

void ConnectionState::setState(NWTCPConnectionState state, NSError* error) {
  const auto held = object();
  // One change after the other, each with its notification: of two, the second sees the first.
  const std::lock_guard changing(changing_);
  {
    const std::lock_guard guard(lock_);
    if (state_ == NWTCPConnectionStateCancelled) {
      return;
    }
  }
  const std::thread::id outerThread = notifyingThread_.exchange(std::this_thread::get_id());
  [held.get() willChangeValueForKey:@"state"];
  {
    const std::lock_guard guard(lock_);
    state_ = state;
    error_ = macos::Reference<NSError*>::retaining(error);
  }
  [held.get() didChangeValueForKey:@"state"];
  notifyingThread_ = outerThread;
}

void ConnectionState::noteFailure(int error) {
  if (error != 0 && error != ECANCELED && state() == NWTCPConnectionStateConnected) {
    setState(NWTCPConnectionStateDisconnected, posixError(error));
  }
}

void ConnectionState::finishConnecting(int error) {
  if (error == 0) {
    setState(NWTCPConnectionStateConnected, nil);
  } else if (error == ECONNREFUSED &&
             systemBehaviour().refusedConnection == RefusedConnection::waits) {
    setState(NWTCPConnectionStateWaiting, nil);
    return;
  } else if (error != ECANCELED) {
    setState(NWTCPConnectionStateDisconnected, posixError(error));
  }
  endWaiting(error);
}

void ConnectionState::startWhenConnected(std::function<void(int error)> operation) {
  switch (state_) {
    case NWTCPConnectionStateConnecting:
    case NWTCPConnectionStateWaiting:
      waiting_.push_back(std::move(operation));
      break;
    case NWTCPConnectionStateConnected:
    case NWTCPConnectionStateDisconnected: {
      // What was sent before the other side ended can still be read.
      const int failure = error_.get() != nil ? static_cast<int>([error_.get() code]) : 0;
      runOnWorker([operation = std::move(operation), error = socket_ ? failure : ENOTCONN] {
        operation(error);
      });
      break;
    }
    case NWTCPConnectionStateInvalid:
    case NWTCPConnectionStateCancelled:
      runOnWorker([operation = std::move(operation)] { operation(ECANCELED); });
      break;
  }
}

void ConnectionState::endWaiting(int error) {
  std::vector<std::function<void(int error)>> operations;
  {
    const std::lock_guard guard(lock_);
    operations.swap(waiting_);
  }
  for (const auto& operation : operations) {
    runOnWorker([operation, error] { operation(error); });
  }
}

void ConnectionState::read(std::size_t minimum, std::size_t maximum, ReadBlock completion) {
  const std::lock_guard guard(lock_);
  if (std::exchange(hasNextRead_, false)) {
    runOnWorker([completion, data = nextData_, error = nextError_] {
      completion.get()(data.get(), error.get());
    });
    return;
  }
  if (std::exchange(isReading_, true)) {
    runOnWorker([completion] { completion.get()(nil, posixError(EINVAL)); });
    return;
  }
  startWhenConnected(
      [self = shared_from_this(), minimum, maximum, completion = std::move(completion)](int error) {
        if (error == 0) {
          self->startReading(minimum, maximum, completion);
        } else {
          self->finishRead(completion, {}, error);
        }
      });
}

void ConnectionState::startReading(std::size_t minimum, std::size_t maximum,
                                   const ReadBlock& completion) {
  socket_->read(minimum, maximum,
                [self = shared_from_this(), minimum, completion](
                    const std::vector<std::byte>& bytes, int error) {
                  if (error == 0 && bytes.size() < minimum) {
                    self->setState(NWTCPConnectionStateDisconnected, nil);
                  }
                  self->finishRead(completion, bytes, error);
                });
}

void ConnectionState::finishRead(const ReadBlock& completion, const std::vector<std::byte>& bytes,
                                 int error) {
  {
    const std::lock_guard guard(lock_);
    isReading_ = false;
  }
  noteFailure(error);
  // Nothing, and no error, is how the end of the stream is reported.
  NSData* const data =
      bytes.empty() ? nil : [NSData dataWithBytes:bytes.data() length:bytes.size()];
  completion.get()(data, posixError(error));
}

void ConnectionState::write(NSData* data, ErrorBlock completion) {
  const std::lock_guard guard(lock_);
  if (std::exchange(isWriting_, true)) {
    runOnWorker([completion] { completion.get()(posixError(EINVAL)); });
    return;
  }
  const auto* const first = static_cast<const std::byte*>([data bytes]);
  std::vector<std::byte> bytes(first, first + [data length]);
  startWhenConnected([self = shared_from_this(), bytes = std::move(bytes),
                      completion = std::move(completion)](int error) {
    if (error == 0) {
      self->startWriting(bytes, completion);
    } else {
      self->finishWrite(completion, error);
    }
  });
}

void ConnectionState::startWriting(std::vector<std::byte> bytes, const ErrorBlock& completion) {
  socket_->write(std::move(bytes), [self = shared_from_this(), completion](int error) {
    self->finishWrite(completion, error);
  });
}

void ConnectionState::finishWrite(const ErrorBlock& completion, int error) {
  {
    const std::lock_guard guard(lock_);
    isWriting_ = false;
  }
  noteFailure(error);
  completion.get()(posixError(error));
}

void ConnectionState::cancel() {
  {
    const std::lock_guard guard(lock_);
    if (socket_) {
      socket_->close();
    }
  }
  const auto become = [self = shared_from_this()] {
    self->setState(NWTCPConnectionStateCancelled, nil);
    self->endWaiting(ECANCELED);
  };
  if (systemBehaviour().notifiesInsideCancel) {
    become();
  } else {
    runOnWorker(become);
  }
}

void ConnectionState::setNextRead(NSData* data, NSError* error) {
  const std::lock_guard guard(lock_);
  hasNextRead_ = true;
  nextData_ = macos::Reference<NSData*>::retaining(data);
  nextError_ = macos::Reference<NSError*>::retaining(error);
}

}  // namespace ostravel::standin
