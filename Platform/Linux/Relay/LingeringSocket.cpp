#include "Platform/Linux/Relay/LingeringSocket.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <utility>

#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel::linuxplatform {

void LingeringSocket::start(EventLoop& loop, LoopSocket socket) {
  // The previous owner may still have been waiting for it.
  socket.cancelWaits();
  socket.letEndInOrder();
  std::make_shared<LingeringSocket>(Private(), loop, std::move(socket))->discard();
}

LingeringSocket::LingeringSocket(Private /*unused*/, EventLoop& loop, LoopSocket socket)
    : loop_(loop), socket_(std::move(socket)), interval_(limits::kLingerInterval) {}

void LingeringSocket::discard() {
  if (!socket_.isOpen()) {
    return;
  }
  switch (socket_.discardArrived(loop_.counters().discardedBytes)) {
    case LoopSocket::Discarded::some:
      loop_.post([self = shared_from_this()] { self->discard(); });
      break;
    case LoopSocket::Discarded::allSoFar:
      waitForMore();
      break;
    case LoopSocket::Discarded::everything:
      finish();
      return;
  }
  if (!timer_) {
    timer_.emplace(loop_.context());
    startTimer();
  }
}

void LingeringSocket::waitForMore() {
  socket_.waitUntilReadable([self = shared_from_this()](asio::error_code error) {
    if (!error) {
      ++self->loop_.counters().wakeups;
      self->discard();
    }
  });
}

void LingeringSocket::startTimer() {
  timer_->expires_after(interval_);
  timer_->async_wait([self = shared_from_this()](asio::error_code error) {
    if (!error) {
      ++self->loop_.counters().wakeups;
      self->decide();
    }
  });
}

void LingeringSocket::decide() {
  if (!socket_.isOpen()) {
    return;
  }
  waited_ += interval_;
  if (waited_ >= limits::kLingerBound || isEverythingAcknowledged()) {
    finish();
    return;
  }
  interval_ =
      std::min<std::chrono::steady_clock::duration>(interval_ * 2, limits::kLingerBound - waited_);
  startTimer();
}

bool LingeringSocket::isEverythingAcknowledged() {
  // Bytes not acknowledged by the peer's kernel, including our end of stream (tcp(7)).
  int unacknowledged = 0;
  return ::ioctl(socket_.descriptor(), SIOCOUTQ, &unacknowledged) != 0 || unacknowledged == 0;
}

void LingeringSocket::finish() {
  // Cancels both waits, which destroys this object.
  socket_.close();
  timer_.reset();
}

}  // namespace ostravel::linuxplatform
