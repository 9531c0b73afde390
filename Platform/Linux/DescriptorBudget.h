#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

#include "Platform/Linux/RelayLimits.h"

namespace ostravel::linuxplatform {

// How many of the process's descriptors the sockets and pipes of tunnels use, so that new flows can
// be declined before the limit is reached. Owned by the process entry; outlives every event loop.
// Usable from any thread. It counts and does not enforce.
class DescriptorBudget {
 public:
  // A share of the budget, given back on destruction.
  class Lease {
   public:
    Lease() = default;
    Lease(DescriptorBudget& budget, unsigned count) : budget_(&budget), count_(count) {
      budget_->inUse_.fetch_add(count_, std::memory_order_relaxed);
    }
    Lease(Lease&& other) noexcept
        : budget_(std::exchange(other.budget_, nullptr)), count_(other.count_) {}
    Lease& operator=(Lease&& other) noexcept {
      Lease taken(std::move(other));
      std::swap(budget_, taken.budget_);
      std::swap(count_, taken.count_);
      return *this;
    }
    ~Lease() {
      if (budget_ != nullptr) {
        budget_->inUse_.fetch_sub(count_, std::memory_order_relaxed);
      }
    }

   private:
    DescriptorBudget* budget_ = nullptr;
    unsigned count_ = 0;
  };

  // Raises the soft limit of open files to the hard one and takes that as the limit.
  DescriptorBudget();
  // With a limit of the caller's choice; the process's own is left alone.
  explicit DescriptorBudget(std::size_t limit) : limit_(limit) {}
  DescriptorBudget(const DescriptorBudget&) = delete;
  DescriptorBudget& operator=(const DescriptorBudget&) = delete;

  Lease lease(unsigned count) { return Lease(*this, count); }

  std::size_t limit() const { return limit_; }
  std::size_t inUse() const { return inUse_.load(std::memory_order_relaxed); }

  // True: what is left is the reserve, and no new flow should be taken.
  bool nearLimit() const { return inUse() + limits::kDescriptorReserve >= limit_; }

 private:
  std::size_t limit_;
  std::atomic<std::size_t> inUse_ = 0;
};

}  // namespace ostravel::linuxplatform
