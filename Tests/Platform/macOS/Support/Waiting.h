#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace ostravel::macos::test {

// Far longer than anything takes, also on a busy machine and with a sanitizer.
constexpr std::chrono::seconds kWaitingLimit(60);

// False when the condition still does not hold at the limit.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::seconds limit = kWaitingLimit) {
  constexpr std::chrono::microseconds kPause(200);
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

}  // namespace ostravel::macos::test
