#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <unordered_map>

#include "Platform/Linux/Processes/SearchBudget.h"

namespace ostravel::linuxplatform {

// Limits the first event loop's total time for examining processes: scanning their descriptors and
// waiting for file systems. An operation that has begun is completed, at the expense of later ones.
// Used by one thread.
class SearchAllowance {
 public:
  using Clock = std::chrono::steady_clock;
  using Duration = std::chrono::nanoseconds;

  // A tenth of all time, which leaves nine tenths for flows that need no search.
  static constexpr int kDivisor = 10;
  // The most that can be spent at once: the longest search for the local proxy, and the same for
  // users.
  static constexpr Duration kBurst = std::chrono::milliseconds(200);
  // Not available to users. All flows are left to the system until the search for the local proxy
  // has ended.
  static constexpr Duration kReserve = kBurst / 2;
  // No user gets more than half of the total.
  static constexpr int kUserDivisor = 2 * kDivisor;
  // Two of the longest searches for a socket's holder.
  static constexpr Duration kUserBurst = std::chrono::milliseconds(50);

  enum class Counted {
    // The thread's running time. On a busy machine, a search measured by the clock would use up the
    // allowance while waiting for the processor.
    work,
    // By the clock: for waiting.
    time,
  };

  // Charges a user, or the reserve, for the time from construction to destruction.
  class Charge {
   public:
    Charge(SearchAllowance& allowance, std::optional<uid_t> user, Counted counted)
        : allowance_(allowance), user_(user), counted_(counted), start_(allowance.read(counted)) {}
    Charge(const Charge&) = delete;
    Charge& operator=(const Charge&) = delete;
    ~Charge() { allowance_.spend(user_, allowance_.read(counted_) - start_); }

   private:
    SearchAllowance& allowance_;
    const std::optional<uid_t> user_;
    const Counted counted_;
    const Duration start_;
  };

  // now returns the time by the clock, work the thread's running time.
  explicit SearchAllowance(std::function<Clock::time_point()> now = &Clock::now,
                           std::function<Duration()> work = &SearchBudget::timeOfThread);

  // True if a search is permitted now on behalf of a user, or, without one, of all flows.
  bool permits(std::optional<uid_t> user);
  void spend(std::optional<uid_t> user, Duration time);

 private:
  // Fills with time, up to a limit. A debt is paid off first.
  struct Bucket {
    Duration level;
    Clock::time_point filled;

    Duration levelAt(Clock::time_point now, int divisor, Duration limit) const;
    void fill(Clock::time_point now, int divisor, Duration limit);
  };

  Duration read(Counted counted) const;
  Bucket& bucketOf(uid_t user, Clock::time_point now);

  const std::function<Clock::time_point()> now_;
  const std::function<Duration()> work_;
  Bucket all_;
  std::unordered_map<uid_t, Bucket> users_;
};

}  // namespace ostravel::linuxplatform
