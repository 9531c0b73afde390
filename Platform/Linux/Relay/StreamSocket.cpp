#include "Platform/Linux/Relay/StreamSocket.h"

#include <sys/socket.h>

#include "Platform/Linux/Relay/LingeringSocket.h"

namespace ostravel::linuxplatform {

StreamSocket::~StreamSocket() {
  if (entry_ != StreamRegistry::kNone) {
    loop().streams().remove(entry_);
  }
  StreamReader(*this).abandon();
  StreamWriter(*this).abandon();
  socket_.reset();
}

void StreamSocket::attach(LoopSocket socket) {
  attachConnecting(std::move(socket));
  connected();
}

void StreamSocket::attachConnecting(LoopSocket socket) {
  socket_.takeOver(std::move(socket));
  isConnecting_ = true;
}

void StreamSocket::connected() {
  isConnecting_ = false;
  if (areBothClosed()) {
    leaveToLinger();
    return;
  }
  socket_.setClient(std::shared_ptr<Poller::Client>(shared_from_this(), this));
  if (writing_.isClosed) {
    sendEnd();
  }
  StreamReader(*this).socketIsOpen();
  StreamWriter(*this).socketIsOpen();
}

void StreamSocket::readable() {
  StreamReader(*this).dataArrived();
}

void StreamSocket::writable() {
  StreamWriter(*this).roomArrived();
}

void StreamSocket::closeConnecting() {
  if (isConnecting_) {
    isConnecting_ = false;
    socket_.close();
  }
}

// Done on the first operation: a stream without operations has nothing to drop.
void StreamSocket::registerOnce() {
  if (entry_ == StreamRegistry::kNone) {
    entry_ = loop().streams().add(*this);
  }
}

void StreamSocket::receive(std::size_t minimum, std::size_t maximum,
                           platform::ReadCompletion completion) {
  registerOnce();
  StreamReader(*this).read(minimum, maximum, std::move(completion));
}

void StreamSocket::send(platform::Data data, platform::ErrorCompletion completion) {
  registerOnce();
  StreamWriter(*this).write(std::move(data), std::move(completion));
}

void StreamSocket::closeInOrder(Direction direction) {
  if (failure() != nullptr || isClosed(direction)) {
    return;
  }
  if (direction == Direction::read) {
    StreamReader(*this).close();
  } else {
    StreamWriter(*this).close();
  }
  if (!isOpen()) {
    return;
  }
  if (areBothClosed()) {
    leaveToLinger();
  } else if (direction == Direction::read) {
    StreamReader(*this).discard();
  } else {
    sendEnd();
  }
}

void StreamSocket::sendEnd() {
  if (!isEndSent_) {
    isEndSent_ = true;
    ::shutdown(socket_.descriptor(), SHUT_WR);
  }
}

void StreamSocket::leaveToLinger() {
  if (reading_.hasEnded || socketError_ != 0) {
    // Nothing more can arrive, so nothing can turn the end of stream that closing sends into a
    // reset.
    socket_.close();
  } else {
    sendEnd();
    LingeringSocket::start(loop(), std::move(socket_));
  }
}

void StreamSocket::fail(platform::Error error) {
  if (failure() != nullptr) {
    return;
  }
  reading_.gatheringOrFailure = std::make_unique<platform::Error>(std::move(error));
  StreamReader(*this).fail();
  StreamWriter(*this).fail();
  isConnecting_ = false;
  socket_.reset();
}

void StreamSocket::noteFailure(int error) {
  if (socketError_ == 0) {
    socketError_ = static_cast<std::int16_t>(error);
    streamFailed(error);
  }
}

void StreamSocket::countRead(std::size_t bytes) const {
  if (FlowRecord* const flowRecord = record(); flowRecord != nullptr) {
    flowRecord->sent(bytes);
  }
}

void StreamSocket::countWritten(std::size_t bytes) const {
  if (FlowRecord* const flowRecord = record(); flowRecord != nullptr) {
    flowRecord->received(bytes);
  }
}

void StreamSocket::dropCompletions() {
  StreamReader(*this).dropCompletion();
  StreamWriter(*this).dropCompletion();
}

}  // namespace ostravel::linuxplatform
