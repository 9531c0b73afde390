#include "Platform/Linux/Processes/SearchAllowance.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace ostravel::linuxplatform {

namespace {

// Cache bound. A user who has spent nothing recently equals a new one.
constexpr std::size_t kMaximumUsers = 1024;

}  // namespace

SearchAllowance::SearchAllowance(std::function<Clock::time_point()> now,
                                 std::function<Duration()> work)
    : now_(std::move(now)), work_(std::move(work)), all_{kBurst, now_()} {}

bool SearchAllowance::permits(std::optional<uid_t> user) {
  const auto now = now_();
  all_.fill(now, kDivisor, kBurst);
  if (!user) {
    return all_.level > Duration::zero();
  }
  return all_.level > kReserve && bucketOf(*user, now).level > Duration::zero();
}

void SearchAllowance::spend(std::optional<uid_t> user, Duration time) {
  const auto now = now_();
  all_.fill(now, kDivisor, kBurst);
  all_.level -= time;
  if (user) {
    bucketOf(*user, now).level -= time;
  }
}

SearchAllowance::Duration SearchAllowance::read(Counted counted) const {
  return counted == Counted::work ? work_() : now_().time_since_epoch();
}

SearchAllowance::Bucket& SearchAllowance::bucketOf(uid_t user, Clock::time_point now) {
  if (users_.size() >= kMaximumUsers && !users_.contains(user)) {
    std::erase_if(users_, [now](const auto& entry) {
      return entry.second.levelAt(now, kUserDivisor, kUserBurst) == kUserBurst;
    });
  }
  Bucket& bucket = users_.try_emplace(user, Bucket{kUserBurst, now}).first->second;
  bucket.fill(now, kUserDivisor, kUserBurst);
  return bucket;
}

SearchAllowance::Duration SearchAllowance::Bucket::levelAt(Clock::time_point now, int divisor,
                                                           Duration limit) const {
  return std::min(limit, level + (now - filled) / divisor);
}

void SearchAllowance::Bucket::fill(Clock::time_point now, int divisor, Duration limit) {
  level = levelAt(now, divisor, limit);
  filled = now;
}

}  // namespace ostravel::linuxplatform
