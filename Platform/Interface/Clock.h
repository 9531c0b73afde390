#pragma once

namespace ostravel::platform {

// The time of day. Usable from any thread.
class Clock {
 public:
  Clock() = default;
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
  virtual ~Clock() = default;

  // Seconds since 1970-01-01 00:00:00 UTC, with a fractional part.
  virtual double secondsSince1970() const = 0;

  // The same, at most some milliseconds late, where the platform has a cheaper way to tell.
  virtual double coarseSecondsSince1970() const { return secondsSince1970(); }
};

}  // namespace ostravel::platform
