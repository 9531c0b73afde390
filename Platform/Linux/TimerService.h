#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <thread>

namespace ostravel::linuxplatform {

// The thread on which the timers of all queues expire. It only puts handlers on their queues, so
// nothing that a handler does can make another timer late. Owned by the platform; outlives every
// timer.
class TimerService {
 public:
  // Throws std::system_error when the thread or its descriptors cannot be made.
  TimerService();
  TimerService(const TimerService&) = delete;
  TimerService& operator=(const TimerService&) = delete;
  ~TimerService();

  // Nothing expires after this returns.
  void stop();

  asio::io_context& context() { return context_; }

 private:
  asio::io_context context_;
  asio::executor_work_guard<asio::io_context::executor_type> keepsRunning_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
