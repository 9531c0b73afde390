#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

namespace ostravel::linuxplatform {

// Says once that the inspector does not answer, and once that it does again, for all connections to
// it. Usable from any thread.
class InspectorHealth {
 public:
  // warn receives a sentence for the log.
  explicit InspectorHealth(std::function<void(const std::string&)> warn) : warn_(std::move(warn)) {}

  // reason: what is wrong, a part of a sentence.
  void noteFailure(const std::string& reason);
  void noteAnswer();

 private:
  const std::function<void(const std::string&)> warn_;
  std::mutex lock_;
  // Written with the lock held.
  std::atomic<bool> isFailing_ = false;
};

}  // namespace ostravel::linuxplatform
