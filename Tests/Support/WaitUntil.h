#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace ostravel::testing {

// Polls, for conditions that give no signal. False if the condition does not hold within the limit,
// which is far longer than anything takes, even on a busy machine and with a sanitizer.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = std::chrono::seconds(60)) {
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

}  // namespace ostravel::testing
