#include "Tests/Contract/SocketPeer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

namespace ostravel::contract {

SocketPeer::SocketPeer(int descriptor, Stage stage, std::function<void()> wakeUp)
    : wakeUp_(std::move(wakeUp)), descriptor_(descriptor), stage_(stage) {}

SocketPeer::~SocketPeer() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
  }
}

void SocketPeer::connectTo(const sockaddr* address, socklen_t size) {
  const std::lock_guard guard(lock_);
  if (isOver()) {
    return;
  }
  stage_ = Stage::connecting;
  wakeUp_();
  if (::connect(descriptor_, address, size) == 0) {
    finishConnecting();
  } else if (errno != EINPROGRESS) {
    fail();
  }
}

void SocketPeer::noteRefused() {
  const std::lock_guard guard(lock_);
  sawReset_ = true;
}

void SocketPeer::noteLeftToSystem() {
  const std::lock_guard guard(lock_);
  leftToSystem_ = true;
}

short SocketPeer::awaitedEvents() const {
  const std::lock_guard guard(lock_);
  if (isOver() || stage_ == Stage::idle) {
    return 0;
  }
  if (stage_ == Stage::connecting) {
    return POLLOUT;
  }
  short events = 0;
  if (isReceiving_ && !sawEnd_) {
    events |= POLLIN;
  }
  if (sent_ < outgoing_.size()) {
    events |= POLLOUT;
  }
  return events;
}

int SocketPeer::descriptor() const {
  const std::lock_guard guard(lock_);
  return descriptor_;
}

void SocketPeer::proceed() {
  const std::lock_guard guard(lock_);
  if (isOver()) {
    return;
  }
  if (stage_ == Stage::connecting) {
    finishConnecting();
  }
  if (stage_ == Stage::connected) {
    sendSome();
    receiveSome();
  }
}

void SocketPeer::send(std::string bytes) {
  const std::lock_guard guard(lock_);
  outgoing_ += bytes;
  sendSome();
  wakeUp_();
}

void SocketPeer::endSending() {
  const std::lock_guard guard(lock_);
  endsSending_ = true;
  sendSome();
}

void SocketPeer::reset() {
  const std::lock_guard guard(lock_);
  if (descriptor_ >= 0) {
    const linger immediately{.l_onoff = 1, .l_linger = 0};
    ::setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &immediately, sizeof immediately);
    ::close(std::exchange(descriptor_, -1));
  }
  wakeUp_();
}

void SocketPeer::stopReceiving() {
  const std::lock_guard guard(lock_);
  isReceiving_ = false;
}

void SocketPeer::resumeReceiving() {
  const std::lock_guard guard(lock_);
  isReceiving_ = true;
  wakeUp_();
}

std::string SocketPeer::received() const {
  const std::lock_guard guard(lock_);
  return received_;
}

std::size_t SocketPeer::receivedCount() const {
  const std::lock_guard guard(lock_);
  return received_.size();
}

bool SocketPeer::sawEnd() const {
  const std::lock_guard guard(lock_);
  return sawEnd_;
}

bool SocketPeer::sawReset() const {
  const std::lock_guard guard(lock_);
  return sawReset_;
}

bool SocketPeer::wasLeftToSystem() const {
  const std::lock_guard guard(lock_);
  return leftToSystem_;
}

void SocketPeer::finishConnecting() {
  int error = 0;
  socklen_t size = sizeof error;
  ::getsockopt(descriptor_, SOL_SOCKET, SO_ERROR, &error, &size);
  if (error != 0) {
    fail();
    return;
  }
  stage_ = Stage::connected;
  sendSome();
}

void SocketPeer::sendSome() {
  if (isOver() || stage_ != Stage::connected) {
    return;
  }
  while (sent_ < outgoing_.size()) {
    const auto count = ::send(descriptor_, outgoing_.data() + sent_, outgoing_.size() - sent_,
                              MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0) {
      if (errno != EAGAIN) {
        fail();
      }
      return;
    }
    sent_ += static_cast<std::size_t>(count);
  }
  if (endsSending_ && !std::exchange(endedSending_, true)) {
    ::shutdown(descriptor_, SHUT_WR);
  }
}

void SocketPeer::receiveSome() {
  // Enough for one turn; the others get theirs in between.
  constexpr std::size_t kChunk = 256 * 1024;
  if (isOver() || !isReceiving_ || sawEnd_) {
    return;
  }
  std::vector<char> chunk(kChunk);
  const auto count = ::recv(descriptor_, chunk.data(), chunk.size(), MSG_DONTWAIT);
  if (count > 0) {
    received_.append(chunk.data(), static_cast<std::size_t>(count));
  } else if (count == 0) {
    sawEnd_ = true;
  } else if (errno != EAGAIN) {
    fail();
  }
}

void SocketPeer::fail() {
  // Whatever follows an orderly end is caused by the peer itself.
  if (!sawEnd_) {
    sawReset_ = true;
  }
  outgoing_.clear();
  sent_ = 0;
}

}  // namespace ostravel::contract
