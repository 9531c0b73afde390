#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Interface/Log.h"

namespace ostravel::testing {

// Keeps what is logged. Usable from any thread.
class KeptLog final : public platform::Log {
 public:
  // Waits until a line contains this text and returns it; empty when none comes.
  std::string wait(const std::string& text) {
    constexpr std::chrono::seconds kLimit{20};
    std::unique_lock guard(lock_);
    std::string found;
    changed_.wait_for(guard, kLimit, [this, &text, &found] {
      for (const std::string& line : lines_) {
        if (line.find(text) != std::string::npos) {
          found = line;
        }
      }
      return !found.empty();
    });
    return found;
  }

  std::size_t count() {
    const std::lock_guard guard(lock_);
    return lines_.size();
  }

 private:
  void write(platform::LogLevel /*level*/, std::string_view format,
             std::span<const platform::LogArgument> arguments) override {
    const std::lock_guard guard(lock_);
    lines_.push_back(platform::formatLogLine(format, arguments));
    changed_.notify_all();
  }

  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
};

}  // namespace ostravel::testing
