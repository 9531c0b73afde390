#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace ostravel::linuxplatform {

// The few threads that run the work of all dispatch queues. Owned by the platform; outlives every
// queue's use of it. Usable from any thread.
//
// Only work of two queues ever blocks for long: the health queue's in its probe, and the monitoring
// queue's in a write that its receiver does not take. Two more threads keep everything else going,
// one while the other is in a short item. A thread that waits for a queue does what it waits for by
// itself, so waiting never uses up a thread that somebody else needs.
class WorkerPool {
 public:
  static constexpr std::size_t kThreads = 4;

  // Has work to do, a bounded part of it per turn.
  class Client {
   public:
    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    virtual ~Client() = default;

    virtual void takeTurn() = 0;
  };

  // Throws std::system_error when the threads cannot be made.
  WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;
  // Runs what is left and returns when all of it has run. Whoever cannot wait so long drains first.
  ~WorkerPool();

  // Gives the client a turn on one of the threads, in the order of the calls.
  void submit(std::shared_ptr<Client> client);

  // Items are counted from when a queue takes them until they have run, so that drain() also sees
  // those that wait in a queue for something that runs elsewhere.
  void itemSubmitted() { ++unfinishedItems_; }
  void itemFinished();

  // True as soon as no item is waiting or running, false when there still is one at the deadline.
  [[nodiscard]] bool drain(std::chrono::steady_clock::time_point deadline);

 private:
  void run();
  bool callOne();
  void endThreads();

  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::deque<std::shared_ptr<Client>> clients_;
  std::size_t sleepingThreads_ = 0;
  // A thread was woken and has not looked yet. It calls the next one if it finds more than it can
  // take, so that clients that come in quick succession do not wake a thread each.
  bool isThreadCalled_ = false;
  bool isEnding_ = false;

  std::atomic<std::size_t> unfinishedItems_ = 0;
  std::atomic<bool> isDraining_ = false;
  std::condition_variable drained_;

  std::vector<std::thread> threads_;
};

}  // namespace ostravel::linuxplatform
