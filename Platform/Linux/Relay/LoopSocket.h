#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "Base/FileDescriptor.h"
#include "Base/ReferenceCounted.h"
#include "Platform/Linux/Relay/Poller.h"
#include "Platform/Linux/Relay/Task.h"
#include "Platform/Linux/Services/UserShare.h"
#include "Platform/Linux/Statistics/SingleWriterCount.h"

namespace ostravel::linuxplatform {

class EventLoop;

// A nonblocking socket of an event loop, counted in the descriptor budget. For the loop's thread;
// may be destroyed on any thread once nothing on the loop uses it.
class LoopSocket {
 public:
  enum class Discarded : std::uint8_t {
    // There may be more; yield and continue.
    some,
    allSoFar,
    // Nothing more will arrive: the peer has ended its direction, or the connection has ended.
    everything,
  };
  // How the kernel ends the connection if the process is killed.
  enum class AfterKill : std::uint8_t { reset, inOrder };

  LoopSocket() = default;
  // Not open: for a socket of this loop that takeOver() provides, and whose descriptor this user is
  // charged for, if it is not null.
  LoopSocket(EventLoop& loop, Reference<UserShare> user) : loop_(&loop), user_(std::move(user)) {}
  // Takes ownership of the descriptor, even if the loop cannot watch it: it is closed then.
  // afterKill: whether the descriptor has been passed to, or has inherited, resetAfterKill(). In
  // both cases this object resets a connection that it has not closed in order.
  LoopSocket(EventLoop& loop, int descriptor, AfterKill afterKill = AfterKill::reset);
  // The other one is not open afterwards; it keeps its loop and its user.
  LoopSocket(LoopSocket&& other) noexcept;
  LoopSocket& operator=(LoopSocket&& other) noexcept;
  ~LoopSocket() { release(); }

  // Takes a socket of the same loop from the other one, and charges its own user for it.
  void takeOver(LoopSocket other);
  // Its events are handled before those of the loop's other sockets.
  void goFirst();

  // Must have one.
  EventLoop& loop() const { return *loop_; }
  const Reference<UserShare>& user() const { return user_; }

  bool isOpen() const { return watch_ != nullptr; }
  // -1 if it is not open.
  int descriptor() const { return descriptor_.get(); }

  // Runs the task once, on the loop, unless the wait is cancelled or the socket closed. It may run
  // early: try, and wait again. A caller that receives, sends or accepts without the operations
  // below must report EAGAIN with nothingToRead() or noRoomToWrite(); otherwise the next wait ends
  // at once.
  void waitUntilReadable(Task task);
  void waitUntilWritable(Task task);
  // The same for a client, which stays the socket's until waits are cancelled.
  void setClient(std::weak_ptr<Poller::Client> client) {
    Poller::setClient(*watch_, std::move(client));
  }
  void waitUntilReadable();
  void waitUntilWritable();
  void cancelWaits();
  void nothingToRead() { watch_->nothingToRead(); }
  void noRoomToWrite() { watch_->noRoomToWrite(); }

  // As recv(2), send(2), and splice(2) from the socket into a pipe. None of them blocks.
  ssize_t receive(void* buffer, std::size_t size);
  ssize_t send(const void* bytes, std::size_t size);
  ssize_t moveInto(int pipe, std::size_t size);

  // Discards what has arrived, without copying it, and adds its size to total.
  Discarded discardArrived(SingleWriterCount& total);

  // Makes the socket end with a reset unless it is closed in order, even when the process is
  // killed: a truncated stream must not look complete. Accepted sockets inherit this, and the
  // next, from their listener.
  static void resetAfterKill(int descriptor);
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
  // What closing the descriptor must lead to, and what the kernel would do by itself.
  enum class Ending : std::uint8_t { reset, resetByUs, inOrder };

  void runIfReadable();
  void runIfWritable();
  void release();

  EventLoop* loop_ = nullptr;
  Poller::Watch* watch_ = nullptr;
  // Charged for the descriptor while it is open; null for nobody.
  Reference<UserShare> user_;
  FileDescriptor descriptor_;
  Ending ending_ = Ending::reset;
};

}  // namespace ostravel::linuxplatform
