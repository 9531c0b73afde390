#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <unordered_map>

#include "Platform/Linux/Processes/SearchBudget.h"

namespace ostravel::linuxplatform {

// How much of the verdict thread's time may go into finding out about processes: into looks through
// their descriptors and into waiting for a file system, all of them together. What is begun is
// ended, at the expense of what comes later. Used by one thread.
class SearchAllowance {
 public:
  using Clock = std::chrono::steady_clock;
  using Duration = std::chrono::nanoseconds;

  // Of all time, so that nine tenths are left for flows that need no search.
  static constexpr int kDivisor = 10;
  // What may be spent at once: the longest search for the local proxy, and as much again for users.
  static constexpr Duration kBurst = std::chrono::milliseconds(200);
  // Users may not have this part of it. All flows are left to the system until the search for the
  // local proxy has ended.
  static constexpr Duration kReserve = kBurst / 2;
  // No user may have more than half of what there is: what is left serves all others.
  static constexpr int kUserDivisor = 2 * kDivisor;
  // Two of the longest searches for the holder of a socket.
  static constexpr Duration kUserBurst = std::chrono::milliseconds(50);

  enum class Counted {
    // In which the thread runs. On a busy machine a search would use up everything while it waits
    // for its turn.
    work,
    // By the clock: for waiting.
    time,
  };

  // Charges a user, or the reserve, for the time from its making to its end.
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

  // now tells the time by the clock, work that of the thread.
  explicit SearchAllowance(std::function<Clock::time_point()> now = &Clock::now,
                           std::function<Duration()> work = &SearchBudget::timeOfThread);

  // Whether something may be searched for now on behalf of a user; without one, on behalf of all.
  bool permits(std::optional<uid_t> user);
  void spend(std::optional<uid_t> user, Duration time);

 private:
  // Fills with the time, up to a limit. A debt is paid off first.
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
