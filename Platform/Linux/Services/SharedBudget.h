#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

#include "Platform/Linux/Services/UserShare.h"

namespace ostravel::linuxplatform {

// A limited resource of the process, divided among users. It does not enforce the limits: callers
// check before they use some of it. Usable from any thread; outlives its leases.
//
// A user may take more while its share is smaller than the amount that is still free. A single user
// gets half, two get a third each, n get 1/(n+1) each: the users need not be known in advance, and
// there is always some left for one more.
class SharedBudget {
 public:
  // The counter of a user's share that belongs to this budget.
  using Counter = std::atomic<std::size_t>& (UserShare::*)();

  // An amount in use, returned on destruction.
  class Lease {
   public:
    Lease() = default;
    // Without a share it is not charged to any user.
    Lease(SharedBudget& budget, std::size_t amount, Reference<UserShare> share = nullptr)
        : budget_(&budget), amount_(amount), share_(std::move(share)) {
      budget_->take(amount_, share_.get());
    }
    Lease(Lease&& other) noexcept
        : budget_(std::exchange(other.budget_, nullptr)),
          amount_(other.amount_),
          share_(std::move(other.share_)) {}
    Lease& operator=(Lease&& other) noexcept {
      Lease taken(std::move(other));
      std::swap(budget_, taken.budget_);
      std::swap(amount_, taken.amount_);
      std::swap(share_, taken.share_);
      return *this;
    }
    ~Lease() {
      if (budget_ != nullptr) {
        budget_->giveBack(amount_, share_.get());
      }
    }

    // Charges the amount to this user from now on.
    void chargeTo(Reference<UserShare> share) {
      if (budget_ != nullptr) {
        budget_->charge(amount_, share_.get(), share.get());
        share_ = std::move(share);
      }
    }

   private:
    SharedBudget* budget_ = nullptr;
    std::size_t amount_ = 0;
    Reference<UserShare> share_;
  };

  SharedBudget(std::size_t limit, Counter counter) : limit_(limit), counter_(counter) {}
  SharedBudget(const SharedBudget&) = delete;
  SharedBudget& operator=(const SharedBudget&) = delete;

  Lease lease(std::size_t amount, Reference<UserShare> share = nullptr) {
    return Lease(*this, amount, std::move(share));
  }

  // For owners that know the budget, the amount and the share anyway, and have no room for a lease.
  // The share may be null, and outlives the use.
  void take(std::size_t amount, UserShare* share) {
    inUse_.fetch_add(amount, std::memory_order_relaxed);
    charge(amount, nullptr, share);
  }
  void giveBack(std::size_t amount, UserShare* share) {
    inUse_.fetch_sub(amount, std::memory_order_relaxed);
    charge(amount, share, nullptr);
  }
  // Charges what is in use to another share.
  void charge(std::size_t amount, UserShare* before, UserShare* now) const {
    if (before != nullptr) {
      (before->*counter_)().fetch_sub(amount, std::memory_order_relaxed);
    }
    if (now != nullptr) {
      (now->*counter_)().fetch_add(amount, std::memory_order_relaxed);
    }
  }

  std::size_t limit() const { return limit_; }
  std::size_t inUse() const { return inUse_.load(std::memory_order_relaxed); }
  std::size_t unused() const {
    const std::size_t used = inUse();
    return used < limit_ ? limit_ - used : 0;
  }

  // True if this user may take this much more.
  bool isWithinShare(UserShare& share, std::size_t amount) const {
    const std::size_t used = (share.*counter_)().load(std::memory_order_relaxed);
    return used + amount <= unused();
  }

 private:
  const std::size_t limit_;
  const Counter counter_;
  std::atomic<std::size_t> inUse_ = 0;
};

}  // namespace ostravel::linuxplatform
