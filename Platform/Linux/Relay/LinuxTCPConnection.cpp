#include "Platform/Linux/Relay/LinuxTCPConnection.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "Base/FileDescriptor.h"
#include "Base/ProgrammingError.h"
#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/Kernel/SocketOption.h"
#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/SocketError.h"

namespace ostravel::linuxplatform {

using platform::TCPConnectionState;

namespace {

void requireStateKeyPath(std::string_view keyPath) {
  if (keyPath != platform::StateObservers::kKeyPath) {
    programmingError("a connection has no observable property but its state");
  }
}

}  // namespace

std::shared_ptr<LinuxTCPConnection> LinuxTCPConnection::connect(
    EventLoop& loop, const platform::HostEndpoint& endpoint) {
  if (!loop.isCurrent()) {
    programmingError("a connection is created on another thread than its loop's");
  }
  auto connection = std::make_shared<LinuxTCPConnection>(Private(), loop);
  connection->start(endpoint);
  return connection;
}

LinuxTCPConnection::LinuxTCPConnection(Private /*unused*/, EventLoop& loop)
    : StreamSocket(loop, loop.servedUser()) {}

platform::OptionalError LinuxTCPConnection::error() const {
  const int error = error_;
  return error == 0 ? std::nullopt : platform::OptionalError(socketError(error));
}

// Connecting

void LinuxTCPConnection::start(const platform::HostEndpoint& endpoint) {
  const int error = startConnecting(endpoint);
  if (error == 0) {
    // Over the loopback interface the connection has nearly always been established by now.
    if (isEstablished()) {
      finishConnectingLater();
    } else {
      waitUntilConnected();
    }
    return;
  }
  // Deferred, because the caller cannot have added an observer yet.
  loop().post([weakSelf = this->weakSelf(), error] {
    if (const auto self = weakSelf.lock()) {
      self->failToConnect(error);
    }
  });
}

int LinuxTCPConnection::startConnecting(const platform::HostEndpoint& endpoint) {
  const auto parsed = parseAddressLiteral(endpoint);
  if (!parsed) {
    return EINVAL;
  }
  const KernelAddress address(*parsed);
  FileDescriptor descriptor(
      ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!descriptor.isOpen()) {
    return errno;
  }
  if (!loop().presetsSockets()) {
    // A process without permission to set the mark intercepts nothing, so a failure does no harm.
    const std::uint32_t mark = loop().marks().own();
    ::setsockopt(descriptor.get(), SOL_SOCKET, SO_MARK, &mark, sizeof mark);
    LoopSocket::sendWithoutDelay(descriptor.get());
  }
  if (::connect(descriptor.get(), address.get(), address.size) != 0 && errno != EINPROGRESS &&
      errno != EINTR) {
    return errno;
  }
  // Only the application's side of a tunnel is reset after a kill, because one side is enough: an
  // application that sees a reset knows that its stream is not complete.
  LoopSocket socket(loop(), descriptor.release(), LoopSocket::AfterKill::inOrder);
  if (!socket.isOpen()) {
    return ENOMEM;
  }
  attachConnecting(std::move(socket));
  return 0;
}

bool LinuxTCPConnection::isEstablished() {
  KernelAddress peer;
  return ::getpeername(connecting()->descriptor(), peer.get(), &peer.size) == 0;
}

// Deferred, because the caller cannot have added an observer yet.
void LinuxTCPConnection::finishConnectingLater() {
  loop().post([weakSelf = this->weakSelf()] {
    const auto self = weakSelf.lock();
    if (self && self->connecting() != nullptr) {
      self->becomeConnected();
    }
  });
}

void LinuxTCPConnection::waitUntilConnected() {
  connecting()->waitUntilWritable([weakSelf = this->weakSelf()] {
    if (const auto self = weakSelf.lock()) {
      ++self->loop().counters().wakeups;
      self->finishConnecting();
    }
  });
}

void LinuxTCPConnection::finishConnecting() {
  LoopSocket* const socket = connecting();
  if (socket == nullptr) {
    return;
  }
  const auto result = socketOption<int>(socket->descriptor(), SOL_SOCKET, SO_ERROR);
  if (const int error = result ? *result : errno; error != 0) {
    failToConnect(error);
    return;
  }
  if (!isEstablished()) {
    if (errno != ENOTCONN) {
      // No event would follow.
      failToConnect(errno);
      return;
    }
    // A spurious wake-up.
    socket->noRoomToWrite();
    waitUntilConnected();
    return;
  }
  becomeConnected();
}

void LinuxTCPConnection::becomeConnected() {
  connected();
  changeState(TCPConnectionState::connected, 0);
  observers_.notify(*this);
}

void LinuxTCPConnection::failToConnect(int error) {
  if (isCancelled_) {
    return;
  }
  closeConnecting();
  changeState(TCPConnectionState::disconnected, error);
  fail(socketError(error));
  observers_.notify(*this);
}

// Transfer

void LinuxTCPConnection::read(std::size_t minimum, std::size_t maximum,
                              platform::ReadCompletion completion) {
  loop().runWith(*this, [minimum, maximum,
                         completion = std::move(completion)](LinuxTCPConnection& self) mutable {
    self.receive(minimum, maximum, std::move(completion));
  });
}

void LinuxTCPConnection::write(platform::Data data, platform::ErrorCompletion completion) {
  loop().runWith(*this, [data = std::move(data),
                         completion = std::move(completion)](LinuxTCPConnection& self) mutable {
    self.send(std::move(data), std::move(completion));
  });
}

void LinuxTCPConnection::cancel() {
  loop().runWith(*this, [](LinuxTCPConnection& self) { self.cancelOnLoop(); });
}

void LinuxTCPConnection::cancelOnLoop() {
  if (std::exchange(isCancelled_, true)) {
    return;
  }
  if (state() == TCPConnectionState::connecting) {
    closeConnecting();
    fail(socketError(ECANCELED));
  } else {
    closeInOrder(Direction::read);
    closeInOrder(Direction::write);
  }
  changeStateLater(TCPConnectionState::cancelled, 0);
}

void LinuxTCPConnection::streamFailed(int error) {
  changeStateLater(TCPConnectionState::disconnected, error);
}

void LinuxTCPConnection::streamEnded() {
  changeStateLater(TCPConnectionState::disconnected, 0);
}

std::weak_ptr<LinuxTCPConnection> LinuxTCPConnection::weakSelf() {
  return std::shared_ptr<LinuxTCPConnection>(shared_from_this(), this);
}

// State

void LinuxTCPConnection::changeStateLater(TCPConnectionState state, int error) {
  changeState(state, error);
  // Not inside the call that detected it.
  loop().post([weakSelf = this->weakSelf()] {
    if (const auto self = weakSelf.lock()) {
      self->observers_.notify(*self);
    }
  });
}

void LinuxTCPConnection::changeState(TCPConnectionState state, int error) {
  // The error first: a reader who sees the state must see the error that explains it.
  error_ = static_cast<std::int16_t>(error);
  state_ = static_cast<std::uint8_t>(state);
}

void LinuxTCPConnection::addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                                     std::string_view keyPath) {
  requireStateKeyPath(keyPath);
  if (observers_.add(std::move(observer))) {
    loop().post([weakSelf = this->weakSelf()] {
      if (const auto self = weakSelf.lock()) {
        self->observers_.notifyOfMissedChange(*self);
      }
    });
  }
}

void LinuxTCPConnection::removeObserver(platform::KeyValueObserver& observer,
                                        std::string_view keyPath) {
  requireStateKeyPath(keyPath);
  observers_.remove(observer);
}

}  // namespace ostravel::linuxplatform
