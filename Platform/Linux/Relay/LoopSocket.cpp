#include "Platform/Linux/Relay/LoopSocket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel::linuxplatform {

LoopSocket::LoopSocket(EventLoop& loop, int descriptor, AfterKill afterKill)
    : loop_(&loop),
      descriptor_(descriptor),
      ending_(afterKill == AfterKill::reset ? Ending::reset : Ending::resetByUs) {
  watch_ = loop.poller().add(descriptor);
  if (watch_ == nullptr) {
    descriptor_ = FileDescriptor();
    return;
  }
  loop.descriptors().take(1, nullptr);
}

LoopSocket::LoopSocket(LoopSocket&& other) noexcept
    : loop_(other.loop_),
      watch_(std::exchange(other.watch_, nullptr)),
      user_(other.user_),
      descriptor_(std::move(other.descriptor_)),
      ending_(other.ending_) {}

LoopSocket& LoopSocket::operator=(LoopSocket&& other) noexcept {
  if (this != &other) {
    release();
    loop_ = other.loop_;
    user_ = other.user_;
    watch_ = std::exchange(other.watch_, nullptr);
    descriptor_ = std::move(other.descriptor_);
    ending_ = other.ending_;
  }
  return *this;
}

void LoopSocket::takeOver(LoopSocket other) {
  release();
  watch_ = std::exchange(other.watch_, nullptr);
  descriptor_ = std::move(other.descriptor_);
  ending_ = other.ending_;
  if (isOpen()) {
    loop_->descriptors().charge(1, other.user_.get(), user_.get());
  }
}

void LoopSocket::goFirst() {
  loop_->poller().prefer(*watch_);
}

// Waiting

void LoopSocket::waitUntilReadable(Task task) {
  loop_->poller().waitUntilReadable(*watch_, std::move(task));
  runIfReadable();
}

void LoopSocket::waitUntilReadable() {
  Poller::waitUntilReadable(*watch_);
  runIfReadable();
}

void LoopSocket::waitUntilWritable(Task task) {
  loop_->poller().waitUntilWritable(*watch_, descriptor(), std::move(task));
  runIfWritable();
}

void LoopSocket::waitUntilWritable() {
  loop_->poller().waitUntilWritable(*watch_, descriptor());
  runIfWritable();
}

void LoopSocket::runIfReadable() {
  Poller& poller = loop_->poller();
  if (poller.isReadingDue(*watch_)) {
    loop_->post([&poller, key = Poller::keyOf(*watch_)] { poller.runDue(key); });
  }
}

void LoopSocket::runIfWritable() {
  Poller& poller = loop_->poller();
  if (poller.isWritingDue(*watch_)) {
    loop_->post([&poller, key = Poller::keyOf(*watch_)] { poller.runDue(key); });
  }
}

void LoopSocket::cancelWaits() {
  Poller::cancelWaits(*watch_);
}

// Transfer

ssize_t LoopSocket::receive(void* buffer, std::size_t size) {
  const auto received = ::recv(descriptor(), buffer, size, MSG_DONTWAIT);
  if (received > 0 && static_cast<std::size_t>(received) < size) {
    watch_->readLess();
  } else if (received < 0 && errno == EAGAIN) {
    watch_->nothingToRead();
  }
  return received;
}

ssize_t LoopSocket::send(const void* bytes, std::size_t size) {
  const auto sent = ::send(descriptor(), bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent < 0 && errno == EAGAIN) {
    watch_->noRoomToWrite();
  }
  return sent;
}

ssize_t LoopSocket::moveInto(int pipe, std::size_t size) {
  const auto moved =
      ::splice(descriptor(), nullptr, pipe, nullptr, size, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
  // Only EAGAIN shows that the socket is empty: a short count may also mean that small segments
  // have filled the pages of the pipe.
  if (moved < 0 && errno == EAGAIN) {
    watch_->nothingToRead();
  }
  return moved;
}

LoopSocket::Discarded LoopSocket::discardArrived(SingleWriterCount& total) {
  for (int count = 0; count < limits::kDiscardsPerEvent; ++count) {
    if (!watch_->isReadable()) {
      return Discarded::allSoFar;
    }
    const auto received =
        ::recv(descriptor(), nullptr, limits::kDiscardSize, MSG_TRUNC | MSG_DONTWAIT);
    if (received > 0) {
      total += static_cast<std::uint64_t>(received);
      if (static_cast<std::size_t>(received) < limits::kDiscardSize) {
        watch_->readLess();
      }
    } else if (received < 0 && errno == EAGAIN) {
      watch_->nothingToRead();
    } else if (received == 0 || errno != EINTR) {
      return Discarded::everything;
    }
  }
  return Discarded::some;
}

void LoopSocket::resetAfterKill(int descriptor) {
  const linger immediately{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &immediately, sizeof immediately);
}

void LoopSocket::sendWithoutDelay(int descriptor) {
  const int on = 1;
  ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void LoopSocket::reset() {
  ending_ = Ending::resetByUs;
  release();
}

void LoopSocket::letEndInOrder() {
  if (isOpen() && std::exchange(ending_, Ending::inOrder) == Ending::reset) {
    const linger inBackground{.l_onoff = 0, .l_linger = 0};
    ::setsockopt(descriptor(), SOL_SOCKET, SO_LINGER, &inBackground, sizeof inBackground);
  }
}

void LoopSocket::close() {
  letEndInOrder();
  release();
}

void LoopSocket::release() {
  if (!isOpen()) {
    return;
  }
  if (ending_ == Ending::resetByUs) {
    resetAfterKill(descriptor());
  }
  Poller::Watch& watch = *std::exchange(watch_, nullptr);
  // Closing a socket ends its registration.
  if (loop_->isCurrent()) {
    descriptor_ = FileDescriptor();
    loop_->poller().remove(watch);
  } else {
    loop_->poller().removeFromOutside(watch);
    descriptor_ = FileDescriptor();
  }
  loop_->descriptors().giveBack(1, user_.get());
}

}  // namespace ostravel::linuxplatform
