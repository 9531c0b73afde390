#pragma once

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/EventDescriptor.h"
#include "Platform/Linux/Relay/Task.h"

namespace ostravel::linuxplatform {

// Tells an event loop which of its sockets have become ready (epoll(7), edge-triggered). A socket
// is registered once, until it is closed, and costs no further system call, except one when it
// first waits to be writable.
//
// The kernel reports a change once, so a watch remembers it until a system call has shown that the
// socket is no longer ready. Watch describes the trap in that.
//
// Owned by its event loop. For the loop's thread, or before that starts, unless stated otherwise.
class Poller {
 public:
  // Waits for its socket often, and for a long time: without a Task for each wait, which would take
  // more memory than the rest of an idle watch.
  class Client {
   public:
    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // As a Task would run.
    virtual void readable() = 0;
    virtual void writable() = 0;

   protected:
    ~Client() = default;
  };

  // The known readiness of one socket, and who waits for it. Keeps its address until it is removed;
  // its memory is then reused.
  class Watch {
   public:
    // A call may succeed, as far as is known.
    bool isReadable() const { return isReadable_; }

    // A call had to wait (EAGAIN).
    void nothingToRead() { isReadable_ = false; }
    void noRoomToWrite() { isWritable_ = false; }
    // A receive returned less than was requested, so the socket is empty, unless the end of the
    // stream or urgent data (where a receive stops) has been reported: the kernel does not report
    // those again.
    void readLess() {
      if (!isMoreCertain_) {
        isReadable_ = false;
      }
    }

   private:
    friend class Poller;

    std::uint64_t key() const { return std::uint64_t{generation_} << 32U | place_; }

    struct Tasks {
      Task reading;
      Task writing;
    };
    // A client is not kept alive.
    using Waiting = std::variant<std::monostate, std::weak_ptr<Client>, std::unique_ptr<Tasks>>;

    Tasks& tasks();
    // Calls the client, or runs the waiting task. May remove this watch.
    void run(void (Client::*clientsWork)(), Task Tasks::*taskOf);

    // There are two watches for every tunnel: the rest is in the padding of the first.
    [[no_unique_address]] Waiting waiting_;
    // A task or the client waits for it.
    bool isReadAwaited_ : 1 = false;
    bool isWriteAwaited_ : 1 = false;
    bool isReadable_ : 1 = false;
    bool isWritable_ : 1 = false;
    bool isMoreCertain_ : 1 = false;
    bool isWrittenTo_ : 1 = false;
    std::atomic<bool> isRemoved_ = false;
    std::uint32_t place_ = 0;
    std::uint32_t generation_ = 0;
  };

  // Throws std::system_error if the kernel has no descriptors left.
  Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;
  ~Poller();

  // Null if the kernel is out of memory or of watches (epoll_ctl(2)).
  Watch* add(int descriptor);
  // Forgets a socket that is about to be closed. Its waiting tasks are destroyed.
  void remove(Watch& watch);
  // The same from any other thread; the waiting tasks are destroyed on the loop. The loop's thread
  // must not use this watch afterwards.
  void removeFromOutside(Watch& watch);

  // Runs the task once, when the socket may be ready. If it is ready now, no event may follow, and
  // the caller posts runDue(). At most one task each.
  void waitUntilReadable(Watch& watch, Task task);
  void waitUntilWritable(Watch& watch, int descriptor, Task task);
  // The same for a client, instead of tasks: it is called if it still exists then.
  static void setClient(Watch& watch, std::weak_ptr<Client> client);
  static void waitUntilReadable(Watch& watch) { watch.isReadAwaited_ = true; }
  void waitUntilWritable(Watch& watch, int descriptor);
  static void cancelWaits(Watch& watch);
  // Destroys the tasks of all watches. Once the loop has stopped.
  void dropWaits();

  // Identifies a watch; never refers to a later one that reuses its memory.
  using Key = std::uint64_t;
  static Key keyOf(const Watch& watch) { return watch.key(); }
  // True if the waiting task may run now; no event may follow.
  bool isReadingDue(const Watch& watch) const { return watch.isReadable_ && watch.isReadAwaited_; }
  bool isWritingDue(const Watch& watch) const { return watch.isWritable_ && watch.isWriteAwaited_; }
  // Runs the waiting tasks whose socket is ready. Does nothing if the watch is gone.
  void runDue(Key key);

  // In which order the events of one wait are handled.
  enum class Rank : std::uint8_t {
    preferred,
    usual,
    // The peer has ended its side, or the connection has ended: nobody waits for that to be
    // noticed.
    ended,
  };
  // Gives the events of a watch the first rank.
  void prefer(const Watch& watch) { preferred_ = watch.key(); }

  // Waits for events until wake(), or until the limit, if there is one, has passed.
  void wait(std::optional<std::chrono::milliseconds> limit);
  // Runs the tasks for the events of the last wait() that have this rank.
  void dispatch(Rank rank);
  // Ends the current wait, or the next one. From any thread.
  void wake() { wakeUps_.signal(); }

 private:
  // Further events are reported by the next wait.
  static constexpr std::size_t kEventsPerWait = 128;

  Rank rankOf(const epoll_event& event) const;
  Watch* find(Key key);
  void handle(const epoll_event& event);
  void reclaim(Watch& watch);
  void reclaimRemoved();

  FileDescriptor epoll_;
  EventDescriptor wakeUps_;
  // A deque, because its elements keep their addresses when it grows.
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
