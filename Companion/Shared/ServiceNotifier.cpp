#include "Companion/Shared/ServiceNotifier.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

#include "Base/PrintableText.h"

namespace ostravel::companion {

void ServiceNotifier::ready(const std::string& status) {
  ::sd_notify(0, ("READY=1\nSTATUS=" + printableText(status)).c_str());
  std::uint64_t limit = 0;
  if (::sd_watchdog_enabled(0, &limit) > 0) {
    // As sd_watchdog_enabled(3) recommends.
    pause_ = std::chrono::microseconds(limit / 2);
    feedWatchdog();
  }
}

void ServiceNotifier::stopping() {
  ::sd_notify(0, "STOPPING=1");
}

void ServiceNotifier::feedWatchdog() {
  ::sd_notify(0, "WATCHDOG=1");
  timer_.expires_after(pause_);
  timer_.async_wait([this](asio::error_code error) {
    if (!error) {
      feedWatchdog();
    }
  });
}

}  // namespace ostravel::companion
