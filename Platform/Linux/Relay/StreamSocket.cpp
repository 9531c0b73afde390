#include "Platform/Linux/Relay/StreamSocket.h"

#include <sys/socket.h>

#include <utility>

#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/LingeringSocket.h"

namespace ostravel::linuxplatform {

StreamSocket::StreamSocket(EventLoop& loop, Owner& owner, std::shared_ptr<UserShare> user,
                           FlowRecord* record)
    : state_{.loop = loop,
             .owner = owner,
             .user = std::move(user),
             .record = record,
             .socket = {},
             .failure = nullptr,
             .socketError = 0,
             .isEndSent = false} {}

StreamSocket::~StreamSocket() {
  if (entry_ != StreamRegistry::kNone) {
    state_.loop.streams().remove(entry_);
  }
  reader_.abandon();
  writer_.abandon();
  state_.socket.reset();
}

void StreamSocket::attach(LoopSocket socket) {
  state_.socket = std::move(socket);
  state_.socket.chargeTo(state_.user.get());
  if (areBothClosed()) {
    leaveToLinger();
    return;
  }
  if (writer_.isClosed()) {
    sendEnd();
  }
  reader_.socketIsOpen();
  writer_.socketIsOpen();
}

// Done on the first operation: a stream without operations has nothing to drop.
void StreamSocket::registerOnce() {
  if (entry_ == StreamRegistry::kNone) {
    entry_ = state_.loop.streams().add(state_.owner.sharedStream());
  }
}

void StreamSocket::read(std::size_t minimum, std::size_t maximum,
                        platform::ReadCompletion completion) {
  registerOnce();
  reader_.read(minimum, maximum, std::move(completion));
}

void StreamSocket::write(platform::Data data, platform::ErrorCompletion completion) {
  registerOnce();
  writer_.write(std::move(data), std::move(completion));
}

void StreamSocket::closeInOrder(Direction direction) {
  if (state_.failure || isClosed(direction)) {
    return;
  }
  if (direction == Direction::read) {
    reader_.close();
  } else {
    writer_.close();
  }
  if (!state_.socket.isOpen()) {
    return;
  }
  if (areBothClosed()) {
    leaveToLinger();
  } else if (direction == Direction::read) {
    reader_.discard();
  } else {
    sendEnd();
  }
}

void StreamSocket::sendEnd() {
  if (!std::exchange(state_.isEndSent, true)) {
    ::shutdown(state_.socket.descriptor(), SHUT_WR);
  }
}

void StreamSocket::leaveToLinger() {
  if (reader_.hasEnded() || state_.socketError != 0) {
    // Nothing more can arrive, so nothing can turn the end of stream that closing sends into a
    // reset.
    state_.socket.close();
  } else {
    sendEnd();
    LingeringSocket::start(state_.loop, std::move(state_.socket), state_.user);
  }
}

void StreamSocket::fail(platform::Error error) {
  if (state_.failure) {
    return;
  }
  state_.failure = std::make_unique<platform::Error>(std::move(error));
  reader_.fail();
  writer_.fail();
  state_.socket.reset();
}

void StreamSocket::dropCompletions() {
  reader_.dropCompletion();
  writer_.dropCompletion();
}

}  // namespace ostravel::linuxplatform
