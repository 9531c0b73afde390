#include "Platform/Linux/Relay/LoopSocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <asio/error_code.hpp>
#include <cerrno>
#include <utility>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel::linuxplatform {

LoopSocket::LoopSocket(EventLoop& loop, int descriptor) {
  FileDescriptor owned(descriptor);
  lease_ = loop.descriptors().lease(1);
  reactor_.emplace(loop.context().get_executor());
  asio::error_code error;
  reactor_->assign(owned.get(), error);
  if (error) {
    giveUp();
    return;
  }
  owned.release();
}

LoopSocket::LoopSocket(LoopSocket&& other) noexcept {
  *this = std::move(other);
}

LoopSocket& LoopSocket::operator=(LoopSocket&& other) noexcept {
  lease_ = std::move(other.lease_);
  endsInOrder_ = other.endsInOrder_;
  reactor_ = std::move(other.reactor_);
  other.reactor_.reset();
  return *this;
}

int LoopSocket::descriptor() {
  return isOpen() ? reactor_->native_handle() : -1;
}

void LoopSocket::cancelWaits() {
  asio::error_code error;
  reactor_->cancel(error);
}

LoopSocket::Discarded LoopSocket::discardArrived(std::uint64_t& total) {
  for (int count = 0; count < limits::kDiscardsPerEvent; ++count) {
    const auto received =
        ::recv(descriptor(), nullptr, limits::kDiscardSize, MSG_TRUNC | MSG_DONTWAIT);
    if (received > 0) {
      total += static_cast<std::uint64_t>(received);
    } else if (received == 0) {
      return Discarded::everything;
    } else if (errno == EAGAIN) {
      return Discarded::allSoFar;
    } else if (errno != EINTR) {
      return Discarded::everything;
    }
  }
  return Discarded::some;
}

void LoopSocket::resetUnlessClosed(int descriptor) {
  const linger immediately{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &immediately, sizeof immediately);
}

void LoopSocket::sendWithoutDelay(int descriptor) {
  const int on = 1;
  ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void LoopSocket::reset() {
  if (isOpen()) {
    resetUnlessClosed(descriptor());
    giveUp();
  }
}

void LoopSocket::letEndInOrder() {
  if (isOpen() && !std::exchange(endsInOrder_, true)) {
    const linger inBackground{.l_onoff = 0, .l_linger = 0};
    ::setsockopt(descriptor(), SOL_SOCKET, SO_LINGER, &inBackground, sizeof inBackground);
  }
}

void LoopSocket::close() {
  letEndInOrder();
  giveUp();
}

void LoopSocket::giveUp() {
  reactor_.reset();
  lease_ = DescriptorBudget::Lease();
}

}  // namespace ostravel::linuxplatform
