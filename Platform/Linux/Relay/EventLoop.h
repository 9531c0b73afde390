#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Base/FairTurns.h"
#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Linux/Relay/BufferPool.h"
#include "Platform/Linux/Relay/LoopTimers.h"
#include "Platform/Linux/Relay/PipePool.h"
#include "Platform/Linux/Relay/Poller.h"
#include "Platform/Linux/Relay/StreamRegistry.h"
#include "Platform/Linux/Relay/Task.h"
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Platform/Linux/Services/LocalTurns.h"
#include "Platform/Linux/Services/MemoryBudget.h"
#include "Platform/Linux/Statistics/SingleWriterCount.h"

namespace ostravel::linuxplatform {

class FlowListener;
class RedirectPath;

// One thread that waits for the sockets of its flows and connections and runs all their work. Owns
// what that work shares: buffers, pipes, and the listener that accepts released flows. Owned by an
// EventLoopGroup; outlives everything created on it.
//
// A turn of the loop runs a bounded number of posted items, then handles the sockets' events, then
// the transfers that had to wait (FairTurns), then the timers. An idle loop does not wake up.
//
// New flows come first among the events, with all the work that they post, and connections that
// have ended come last: applications wait for the former, and nobody for the latter.
class EventLoop : private LocalTurns {
 public:
  // Statistics since the loop started. Increased on the loop only, readable from any thread.
  struct Counters {
    // Bytes that streams have received into memory and into pipes.
    SingleWriterCount copiedBytes;
    SingleWriterCount splicedBytes;
    // Unread bytes of closed streams.
    SingleWriterCount discardedBytes;
    // Completed waits for sockets and timers of the loop.
    SingleWriterCount wakeups;
  };

  // Starts the thread. Throws std::system_error if no listener can be created. redirectPath:
  // notified of connections that do not arrive.
  EventLoop(unsigned index, DescriptorBudget& descriptors, MemoryBudget& memory,
            const PacketMarks& marks = {}, std::shared_ptr<RedirectPath> redirectPath = nullptr);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  // Stops the loop. Pending work is destroyed without running.
  ~EventLoop() override;

  // The loop that the calling thread runs; null on every other thread.
  static EventLoop* current();
  bool isCurrent() const { return current() == this; }

  // The index for redirecting a released packet to this loop.
  unsigned index() const { return index_; }

  // How this process marks its sockets and packets. From any thread.
  const PacketMarks& marks() const { return marks_; }

  // True if a BPF program sets the mark and TCP_NODELAY on the sockets that this process connects,
  // so that it need not. From any thread.
  bool presetsSockets() const { return presetsSockets_; }
  void setPresetsSockets(bool presets) { presetsSockets_ = presets; }

  // May be null. From any thread.
  RedirectPath* redirectPath() const { return redirectPath_.get(); }

  // Runs work on the loop's thread, in order, never inside this call. From any thread; does not
  // block.
  void post(Task work);

  // Runs work with an object of this loop: now on the loop's thread, otherwise as posted work that
  // keeps the object alive. From any thread.
  template <typename Object, typename Work>
  void runWith(Object& object, Work work) {
    if (isCurrent()) {
      work(object);
      return;
    }
    post([shared = std::shared_ptr<Object>(object.shared_from_this(), &object),
          work = std::move(work)]() mutable { work(*shared); });
  }

  // Ends the thread after the item that is running, and joins it. Nothing completes on this loop
  // afterwards: the pending completions of its streams are destroyed without running, and so are
  // the tunnels that only they keep alive. Idempotent; not from the loop itself.
  void stop();

  // For reading, from any thread.
  const Counters& counters() const { return counters_; }

  // The listener's ports may be read from any thread.
  FlowListener& listener() { return *listener_; }
  DescriptorBudget& descriptors() { return descriptors_; }

  // For the loop's own thread only.
  MemoryBudget& memory() { return memory_; }
  BufferPool& buffers() { return buffers_; }
  PipePool& pipes() { return pipes_; }
  StreamRegistry& streams() { return streams_; }
  Counters& counters() { return counters_; }
  // Divides the transfers among users.
  FairTurns& turns() { return turns_; }
  Poller& poller() { return poller_; }
  LoopTimers& timers() { return timers_; }

  // Owns an object until release() or the end of the loop.
  void keep(std::shared_ptr<void> object) { kept_.insert(std::move(object)); }
  void release(const std::shared_ptr<void>& object) { kept_.erase(object); }

  // The user whose flow is being served; connections created now are charged to it. Null between
  // flows.
  const Reference<UserShare>& servedUser() const { return servedUser_; }
  // Serves a user's flow for the lifetime of the object.
  class Service {
   public:
    Service(EventLoop& loop, Reference<UserShare> user)
        : loop_(loop), before_(std::exchange(loop.servedUser_, std::move(user))) {}
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() { loop_.servedUser_ = std::move(before_); }

   private:
    EventLoop& loop_;
    Reference<UserShare> before_;
  };

 private:
  friend class EventLoopTestPeer;

  // Limit on the posted items that run before the sockets are polled again.
  static constexpr std::size_t kTasksPerTurn = 64;

  void run();
  void runTasks();
  void waitForEvents();
  void handleEvents();
  // Moves what other threads have posted to tasks_. True if the loop may wait: nothing was posted,
  // and the next post wakes it.
  bool prepareToWait(bool mayWait);
  void takeTurnOfTransfers();
  void destroyPending();

  void giveTurn(WorkerPool& pool, std::shared_ptr<WorkerPool::Client> client) override;
  void giveTurns();

  const unsigned index_;
  const PacketMarks marks_;
  const std::shared_ptr<RedirectPath> redirectPath_;
  DescriptorBudget& descriptors_;
  MemoryBudget& memory_;
  Reference<UserShare> servedUser_;
  Counters counters_;
  Poller poller_;
  LoopTimers timers_;
  BufferPool buffers_;
  PipePool pipes_;
  StreamRegistry streams_;
  FairTurns turns_;
  // The next turn of transfers, if one was requested.
  FairTurns::Work transfers_;
  std::unordered_set<std::shared_ptr<void>> kept_;
  std::unique_ptr<FlowListener> listener_;

  // A queue to be given a turn here, or by the pool if the loop ends first.
  struct WaitingQueue {
    WorkerPool* pool = nullptr;
    std::shared_ptr<WorkerPool::Client> client;
  };
  std::vector<WaitingQueue> waitingQueues_;

  // The loop's own work, from nextTask_ on.
  std::vector<Task> tasks_;
  std::size_t nextTask_ = 0;

  std::atomic<bool> presetsSockets_ = false;
  std::atomic<bool> isStopping_ = false;
  std::mutex lock_;
  // Both guarded by lock_: the work posted by other threads, and whether posting must wake the
  // loop.
  std::vector<Task> arrivals_;
  bool isWaiting_ = false;

  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
