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

// A nonblocking TCP socket that an event loop waits for, with its share of the descriptor budget.
// For the loop's thread; may be destroyed on any thread once nobody on the loop uses it.
class LoopSocket {
 public:
  enum class Discarded : std::uint8_t {
    // There may be more; take turns.
    some,
    allSoFar,
    // Nothing follows: the peer has ended, or the connection has.
    everything,
  };

  LoopSocket() = default;
  // Takes the descriptor over, also when the loop cannot wait for it: then nothing is open.
  LoopSocket(EventLoop& loop, int descriptor);
  LoopSocket(LoopSocket&& other) noexcept;
  LoopSocket& operator=(LoopSocket&& other) noexcept;
  ~LoopSocket() = default;

  // Counts it as this user's from now on.
  void chargeTo(std::shared_ptr<UserShare> user) { lease_.chargeTo(std::move(user)); }

  bool isOpen() const { return reactor_.has_value(); }
  // -1 when nothing is open.
  int descriptor();

  // Calls handler(asio::error_code) once, on the loop; with an error, which is to be ignored, when
  // the wait was given up. May be early: try, and wait again.
  template <typename Handler>
  void waitUntilReadable(Handler&& handler) {
    reactor_->async_wait(Descriptor::wait_read, std::forward<Handler>(handler));
  }
  template <typename Handler>
  void waitUntilWritable(Handler&& handler) {
    reactor_->async_wait(Descriptor::wait_write, std::forward<Handler>(handler));
  }
  void giveUpWaiting();

  // Throws away what has arrived, without copying it, and adds its size to total.
  Discarded discardArrived(std::uint64_t& total);

  // Makes a reset the way in which the socket ends unless it is closed in order, also when the
  // process is killed: a stream that was cut off must not look complete. Sockets inherit it from
  // the listener that accepts them.
  static void resetUnlessClosed(int descriptor);

  // From now on the kernel ends the connection in order when the process is killed.
  void letEndInOrder();

  // Ends the connection at once: the peer sees a reset, and what was on its way is lost.
  void reset();
  // Leaves the rest to the kernel: what was sent still arrives, unless bytes that nobody has read,
  // or that arrive later, make it a reset.
  void close();

 private:
  using Descriptor = asio::posix::basic_stream_descriptor<asio::io_context::executor_type>;

  void giveUp();

  DescriptorBudget::Lease lease_;
  bool endsInOrder_ = false;
  std::optional<Descriptor> reactor_;
};

}  // namespace ostravel::linuxplatform
