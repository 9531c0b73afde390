#pragma once

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/EventDescriptor.h"
#include "Platform/Linux/Relay/Task.h"

namespace ostravel::linuxplatform {

// Tells an event loop which of its sockets have become ready (epoll(7), edge-triggered). A socket
// is registered once, until it is closed, and costs no further system call, except that one which
// cannot be written to is registered for that as well.
//
// The kernel reports a change once, so a watch remembers it until a system call has shown that the
// socket is no longer ready. See Watch about the trap in that.
//
// Owned by its event loop. For that loop's thread, or before the loop has one, except where it says
// otherwise.
class Poller {
 public:
  // What is known about one socket, and who waits for it. Stays in place until it is removed; its
  // memory is used again.
  class Watch {
   public:
    // A call may succeed, as far as is known.
    bool isReadable() const { return isReadable_; }

    // A call had to wait (EAGAIN).
    void nothingToRead() { isReadable_ = false; }
    void noRoomToWrite() { isWritable_ = false; }
    // A receive returned less than it could have. That was everything, unless the end of the stream
    // or urgent data (which a receive stops at) was reported together with it: that is not reported
    // again.
    void readLess() {
      if (!isMoreCertain_) {
        isReadable_ = false;
      }
    }

   private:
    friend class Poller;

    std::uint64_t key() const { return std::uint64_t{generation_} << 32U | place_; }

    std::uint32_t place_ = 0;
    std::uint32_t generation_ = 0;
    bool isReadable_ = false;
    bool isWritable_ = false;
    bool isMoreCertain_ = false;
    bool isWrittenTo_ = false;
    std::atomic<bool> isRemoved_ = false;
    Task reading_;
    Task writing_;
  };

  // Throws std::system_error if the kernel has no descriptors left.
  Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;
  ~Poller();

  // Null if the kernel has no memory or no watches left (epoll_ctl(2)).
  Watch* add(int descriptor);
  // Forgets a socket that is about to be closed. What waits for it is destroyed.
  void remove(Watch& watch);
  // The same from any other thread; what waits is destroyed on the loop. After that the loop's
  // thread calls nothing for this watch.
  void removeFromOutside(Watch& watch);

  // Runs the task once, when the socket may be ready; see isDue() about a socket that is now. At
  // most one task for each.
  void waitUntilReadable(Watch& watch, Task task);
  void waitUntilWritable(Watch& watch, int descriptor, Task task);
  void cancelWaits(Watch& watch);
  // Destroys the tasks of all watches. Once the loop has stopped.
  void dropWaits();

  // Identifies a watch, and never another one in its place.
  using Key = std::uint64_t;
  static Key keyOf(const Watch& watch) { return watch.key(); }
  // True if the task that waits may run now: no event may come for it.
  bool isReadingDue(const Watch& watch) const { return watch.isReadable_ && watch.reading_; }
  bool isWritingDue(const Watch& watch) const { return watch.isWritable_ && watch.writing_; }
  // Runs the tasks that wait for what is ready. Nothing happens if the watch is gone.
  void runDue(Key key);

  // Its events are handled before those of others.
  void prefer(const Watch& watch) { preferred_ = watch.key(); }

  // Waits for events, at most this long, or until wake(); without a limit if it is empty.
  void wait(std::optional<std::chrono::milliseconds> limit);
  // Runs the tasks for the events of the last wait().
  void dispatch();
  // Ends the current wait, or the next one. From any thread.
  void wake() { wakeUps_.signal(); }

 private:
  // More are reported by the next wait.
  static constexpr std::size_t kEventsPerWait = 128;

  Watch* find(Key key);
  void handle(const epoll_event& event);
  void reclaim(Watch& watch);
  void reclaimRemoved();

  FileDescriptor epoll_;
  EventDescriptor wakeUps_;
  // Keeps its elements in place when it grows.
  std::deque<Watch> watches_;
  std::vector<std::uint32_t> free_;
  std::array<epoll_event, kEventsPerWait> events_{};
  std::size_t eventCount_ = 0;
  Key preferred_;

  std::atomic<bool> hasRemoved_ = false;
  std::mutex lock_;
  // Guarded by lock_.
  std::vector<Watch*> removed_;
};

}  // namespace ostravel::linuxplatform
