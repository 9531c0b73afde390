#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace ostravel::linuxplatform {

// Counts durations by size, in fixed buckets: four for each power of two of microseconds up to
// about a minute, so a percentile is at most a quarter too high. 840 bytes. Recording costs two
// relaxed additions; usable from any thread.
class DurationHistogram {
 public:
  using Duration = std::chrono::nanoseconds;

  // An immutable copy.
  class Snapshot {
   public:
    struct Bucket {
      // The longest duration in this bucket. The shortest one exceeds the upper boundary of the
      // bucket before.
      std::chrono::microseconds upper;
      std::uint64_t count;
    };

    std::uint64_t count() const { return count_; }
    std::chrono::microseconds sum() const { return sum_; }
    // The buckets that are not empty, in ascending order.
    const std::vector<Bucket>& buckets() const { return buckets_; }
    // The upper boundary of the bucket that contains this percentile; empty if there are no
    // durations. part: a fraction above 0, at most 1.
    std::optional<std::chrono::microseconds> percentile(double part) const;

   private:
    friend class DurationHistogram;

    std::uint64_t count_ = 0;
    std::chrono::microseconds sum_{};
    std::vector<Bucket> buckets_;
  };

  // Too long durations count in the last bucket, negative ones in the first.
  void record(Duration duration);
  Snapshot snapshot() const;
  // The sum of all, bucket by bucket.
  static Snapshot sumOf(const std::vector<const DurationHistogram*>& histograms);

 private:
  static constexpr std::size_t kBuckets = 104;

  static std::size_t bucketOf(std::uint64_t microseconds);
  static std::chrono::microseconds upperOf(std::size_t bucket);

  std::array<std::atomic<std::uint64_t>, kBuckets> counts_{};
  std::atomic<std::uint64_t> nanoseconds_ = 0;
};

}  // namespace ostravel::linuxplatform
