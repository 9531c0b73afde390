#pragma once

#include <atomic>
#include <cstdint>

namespace ostravel::linuxplatform {

// A count that only one thread increases and any thread may read. Increasing it is a plain load and
// store, not an atomic addition.
class SingleWriterCount {
 public:
  SingleWriterCount() = default;
  SingleWriterCount(const SingleWriterCount& other) : count_(other) {}
  SingleWriterCount& operator=(const SingleWriterCount& other) {
    count_.store(other, std::memory_order_relaxed);
    return *this;
  }
  ~SingleWriterCount() = default;

  SingleWriterCount& operator+=(std::uint64_t number) {
    count_.store(*this + number, std::memory_order_relaxed);
    return *this;
  }
  SingleWriterCount& operator++() { return *this += 1; }

  // NOLINTNEXTLINE(google-explicit-constructor): it is a number
  operator std::uint64_t() const { return count_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t> count_ = 0;
};

}  // namespace ostravel::linuxplatform
