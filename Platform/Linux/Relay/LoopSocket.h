#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/basic_stream_descriptor.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "Platform/Linux/Services/DescriptorBudget.h"

namespace ostravel::linuxplatform {

class EventLoop;

// A nonblocking TCP socket of an event loop, with its lease of the descriptor budget. For the
// loop's thread; may be destroyed on any thread once nothing on the loop uses it.
class LoopSocket {
 public:
  enum class Discarded : std::uint8_t {
    // There may be more; yield and continue.
    some,
    allSoFar,
    // Nothing more will arrive: the peer has ended its direction, or the connection has ended.
    everything,
  };

  LoopSocket() = default;
  // Takes ownership of the descriptor, even if the loop cannot watch it: it is closed then.
  LoopSocket(EventLoop& loop, int descriptor);
  LoopSocket(LoopSocket&& other) noexcept;
  LoopSocket& operator=(LoopSocket&& other) noexcept;
  ~LoopSocket() = default;

  // Charges its descriptor to this user from now on.
  void chargeTo(std::shared_ptr<UserShare> user) { lease_.chargeTo(std::move(user)); }

  bool isOpen() const { return reactor_.has_value(); }
  // -1 if it is not open.
  int descriptor();

  // Calls handler(asio::error_code) once, on the loop; with an error, to be ignored, if the wait
  // was cancelled. It may be called early: try, and wait again.
  template <typename Handler>
  void waitUntilReadable(Handler&& handler) {
    reactor_->async_wait(Descriptor::wait_read, std::forward<Handler>(handler));
  }
  template <typename Handler>
  void waitUntilWritable(Handler&& handler) {
    reactor_->async_wait(Descriptor::wait_write, std::forward<Handler>(handler));
  }
  void cancelWaits();

  // Discards what has arrived, without copying it, and adds its size to total.
  Discarded discardArrived(std::uint64_t& total);

  // Makes the socket end with a reset unless it is closed in order, even when the process is
  // killed: a truncated stream must not look complete. Accepted sockets inherit this, and the
  // next, from their listener.
  static void resetUnlessClosed(int descriptor);
  // Small writes are sent at once (TCP_NODELAY).
  static void sendWithoutDelay(int descriptor);

  // From now on the kernel ends the connection in order if the process is killed.
  void letEndInOrder();

  // Ends the connection at once: the peer sees a reset, and data in transit is lost.
  void reset();
  // Closes the socket in order. Sent data still arrives, unless unread or later incoming bytes make
  // the kernel send a reset.
  void close();

 private:
  using Descriptor = asio::posix::basic_stream_descriptor<asio::io_context::executor_type>;

  void giveUp();

  DescriptorBudget::Lease lease_;
  bool endsInOrder_ = false;
  std::optional<Descriptor> reactor_;
};

}  // namespace ostravel::linuxplatform
