#pragma once

#include <chrono>
#include <memory>

#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/LoopSocket.h"
#include "Platform/Linux/Relay/LoopTimer.h"

namespace ostravel::linuxplatform {

// The last phase of a socket whose directions were both closed in order. The kernel answers unread
// bytes with a reset, which can destroy data that the peer has not read yet, so arriving bytes are
// discarded until the peer ends, the connection fails, or limits::kLingerInterval and
// limits::kLingerBound have passed. Kept alive by its event loop; owns no buffer.
class LingeringSocket : public std::enable_shared_from_this<LingeringSocket> {
  struct Private {};

 public:
  // socket: its sending direction has been shut down.
  static void start(EventLoop& loop, LoopSocket socket);

  LingeringSocket(Private /*unused*/, EventLoop& loop, LoopSocket socket);

 private:
  void discard();
  void waitForMore();
  void startTimer();
  void decide();
  bool isEverythingAcknowledged();
  void finish();

  EventLoop& loop_;
  LoopSocket socket_;
  LoopTimer timer_;
  bool isTimed_ = false;
  std::chrono::steady_clock::duration interval_;
  std::chrono::steady_clock::duration waited_{};
};

}  // namespace ostravel::linuxplatform
