#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <string>

namespace ostravel::companion {

// Notifies the service manager that started the program, if any (sd_notify(3)): that it is ready,
// its status, and, while its event loop runs, that it is alive. Used on that loop's thread.
class ServiceNotifier {
 public:
  explicit ServiceNotifier(asio::io_context& ioContext) : timer_(ioContext) {}

  // status: one readable line. From now on the watchdog, if any, is notified.
  void ready(const std::string& status);

  // The program begins to shut down.
  void stopping();

 private:
  void feedWatchdog();

  asio::steady_timer timer_;
  // Zero without a watchdog.
  std::chrono::microseconds pause_{};
};

}  // namespace ostravel::companion
