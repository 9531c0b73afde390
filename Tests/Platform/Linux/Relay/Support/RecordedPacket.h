#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "Platform/Linux/Relay/HeldPacket.h"

namespace ostravel::linuxplatform::test {

// The verdict on a held packet, readable by a test on any thread.
class Verdict {
 public:
  // Empty before the verdict; then "accept", "refuse" or "redirect N".
  std::string current() const;
  std::string wait() const;
  // Only the first verdict counts.
  void give(std::string verdict);

 private:
  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  std::string verdict_;
};

// A held packet without a kernel.
class RecordedPacket final : public HeldPacket {
 public:
  explicit RecordedPacket(std::shared_ptr<Verdict> verdict) : verdict_(std::move(verdict)) {}
  ~RecordedPacket() override { verdict_->give("accept"); }

  void accept() override { verdict_->give("accept"); }
  void redirect(unsigned loopIndex) override {
    verdict_->give("redirect " + std::to_string(loopIndex));
  }
  void refuse() override { verdict_->give("refuse"); }

 private:
  const std::shared_ptr<Verdict> verdict_;
};

inline std::string Verdict::current() const {
  const std::lock_guard guard(lock_);
  return verdict_;
}

inline std::string Verdict::wait() const {
  std::unique_lock guard(lock_);
  changed_.wait_for(guard, std::chrono::seconds(20), [this] { return !verdict_.empty(); });
  return verdict_;
}

inline void Verdict::give(std::string verdict) {
  const std::lock_guard guard(lock_);
  if (verdict_.empty()) {
    verdict_ = std::move(verdict);
    changed_.notify_all();
  }
}

}  // namespace ostravel::linuxplatform::test
