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
// Only two queues ever block for long: the health queue in its probe, and the monitoring queue in a
// write that its receiver does not read. Two more threads run everything else, so that a short item
// does not delay all others. A thread that waits for a queue runs the items ahead of its own
// itself, so waiting never blocks a thread that others need.
class WorkerPool {
 public:
  static constexpr std::size_t kThreads = 4;

  // Has work to do, and does a bounded part of it per turn.
  class Client {
   public:
    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    virtual ~Client() = default;

    virtual void takeTurn() = 0;
  };

  // Throws std::system_error if the threads cannot be created.
  WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;
  // Runs all remaining items first. Call drain() before it to limit the wait.
  ~WorkerPool();

  // Gives the client a turn on one of the threads, in the order of the calls.
  void submit(std::shared_ptr<Client> client);

  // An item counts from the time its queue accepts it until it has run, so that drain() includes
  // the items that wait in a queue for another item.
  void itemSubmitted() { ++unfinishedItems_; }
  void itemFinished();

  // Returns true as soon as no item is waiting or running, false if there still is one at the
  // deadline.
  [[nodiscard]] bool drain(std::chrono::steady_clock::time_point deadline);

 private:
  void run();
  bool callOne();
  void endThreads();

  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::deque<std::shared_ptr<Client>> clients_;
  std::size_t sleepingThreads_ = 0;
  // A thread was woken and has not looked at the clients yet. If it finds more than one, it wakes
  // the next thread, so that clients in quick succession do not wake one thread each.
  bool isThreadCalled_ = false;
  bool isEnding_ = false;

  std::atomic<std::size_t> unfinishedItems_ = 0;
  std::atomic<bool> isDraining_ = false;
  std::condition_variable drained_;

  std::vector<std::thread> threads_;
};

}  // namespace ostravel::linuxplatform
