#include "Companion/Shared/ServiceNotifier.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

namespace ostravel::companion {
namespace {

// Takes the place of the service manager: an abstract socket (unix(7)) named in NOTIFY_SOCKET.
class ServiceManager {
 public:
  ServiceManager() : descriptor_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const std::string name = "ostravel-test-" + std::to_string(::getpid());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    EXPECT_EQ(::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), size), 0);
    ::setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
  }
  ~ServiceManager() {
    for (const char* const name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
      ::unsetenv(name);
    }
    ::close(descriptor_);
  }

  void expectWatchdog(const std::string& microseconds) {
    ::setenv("WATCHDOG_USEC", microseconds.c_str(), 1);
    ::setenv("WATCHDOG_PID", std::to_string(::getpid()).c_str(), 1);
  }

  // Waits for the next notification.
  std::string next() const {
    std::array<char, 4096> bytes{};
    const auto count = ::recv(descriptor_, bytes.data(), bytes.size(), 0);
    return {bytes.data(), static_cast<std::size_t>(count)};
  }

 private:
  int descriptor_;
};

TEST(ServiceNotifier, ReportsReadinessAndTheEnd) {
  const ServiceManager manager;
  asio::io_context ioContext;
  ServiceNotifier notifier(ioContext);
  notifier.ready("Listening on /run/a\nb");
  EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Listening on /run/a\\nb");
  notifier.stopping();
  EXPECT_EQ(manager.next(), "STOPPING=1");
}

TEST(ServiceNotifier, FeedsTheWatchdogWhileTheLoopRuns) {
  ServiceManager manager;
  manager.expectWatchdog("2000");
  asio::io_context ioContext;
  ServiceNotifier notifier(ioContext);
  notifier.ready("");
  manager.next();
  EXPECT_EQ(manager.next(), "WATCHDOG=1");
  for (int beat = 0; beat < 3; ++beat) {
    ioContext.run_one();
    EXPECT_EQ(manager.next(), "WATCHDOG=1");
  }
}

TEST(ServiceNotifier, WithoutAManagerThereIsNothingToRun) {
  ::unsetenv("NOTIFY_SOCKET");
  asio::io_context ioContext;
  ServiceNotifier notifier(ioContext);
  notifier.ready("");
  notifier.stopping();
  EXPECT_EQ(ioContext.run(), 0U);
}

}  // namespace
}  // namespace ostravel::companion
