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
  const auto lingering = std::make_shared<LingeringSocket>(Private(), loop, std::move(socket));
  loop.keep(lingering);
  lingering->discard();
}

LingeringSocket::LingeringSocket(Private /*unused*/, EventLoop& loop, LoopSocket socket)
    : loop_(loop),
      socket_(std::move(socket)),
      timer_(loop.timers()),
      interval_(limits::kLingerInterval) {}

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
  if (!std::exchange(isTimed_, true)) {
    startTimer();
  }
}

void LingeringSocket::waitForMore() {
  socket_.waitUntilReadable([self = weak_from_this()] {
    if (const auto found = self.lock()) {
      ++found->loop_.counters().wakeups;
      found->discard();
    }
  });
}

void LingeringSocket::startTimer() {
  timer_.start(interval_, [self = weak_from_this()] {
    if (const auto found = self.lock()) {
      ++found->loop_.counters().wakeups;
      found->decide();
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
  socket_.close();
  timer_.cancel();
  loop_.release(shared_from_this());
}

}  // namespace ostravel::linuxplatform
