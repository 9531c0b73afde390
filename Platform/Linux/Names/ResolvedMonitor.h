#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Names/BootClock.h"
#include "Platform/Linux/Names/DNSMessage.h"

namespace ostravel::linuxplatform {

// The answers that systemd-resolved gives to applications that ask it through its socket or the bus
// instead of port 53, as reported by its monitor (varlink interface io.systemd.Resolve.Monitor,
// which "resolvectl monitor" uses; since systemd 252). It does not report who asked. Never waits;
// reconnects when resolved has been restarted. Used by one thread at a time.
class ResolvedMonitor {
 public:
  static constexpr const char* kDefaultPath = "/run/systemd/resolve/io.systemd.Resolve.Monitor";

  struct Answer {
    std::string name;
    std::vector<ResolvedAddress> addresses;
  };

  explicit ResolvedMonitor(std::string path = kDefaultPath);

  // Tries to connect if there is no connection, every few seconds.
  void refresh(BootClock::time_point now);

  // For polling; -1 while there is no connection.
  int descriptor() const { return socket_.isOpen() ? socket_.get() : -1; }

  // Passes the answers that have arrived, a bounded number of them.
  void receive(const std::function<void(const Answer&)>& handler);

  // The answer in one message, without its final NUL; empty if it contains none that is usable.
  static std::optional<Answer> parse(std::string_view message);

 private:
  void connect();
  void disconnect();

  const std::string path_;
  std::optional<BootClock::time_point> lastAttempt_;
  FileDescriptor socket_;
  std::string received_;
};

}  // namespace ostravel::linuxplatform
