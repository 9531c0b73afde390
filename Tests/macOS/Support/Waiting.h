#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace ostravel::macos::test {

// False when the condition still does not hold after a time that is far longer than anything takes,
// also on a busy machine and with a sanitizer.
inline bool waitUntil(const std::function<bool()>& condition) {
  constexpr std::chrono::seconds kLimit(60);
  constexpr std::chrono::microseconds kPause(200);
  const auto end = std::chrono::steady_clock::now() + kLimit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

}  // namespace ostravel::macos::test
