#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <string>

namespace ostravel::companion {

// Reports a program to the service manager that started it, if one did (sd_notify(3)): that it is
// ready, what it is doing, and, while its event loop runs, that it is alive. Used on that loop's
// thread.
class ServiceNotifier {
 public:
  explicit ServiceNotifier(asio::io_context& ioContext) : timer_(ioContext) {}

  // status: one line for people. From now on the watchdog is fed, if there is one.
  void ready(const std::string& status);

  // The program begins to end.
  void stopping();

 private:
  void feedWatchdog();

  asio::steady_timer timer_;
  // Zero without a watchdog.
  std::chrono::microseconds pause_{};
};

}  // namespace ostravel::companion
