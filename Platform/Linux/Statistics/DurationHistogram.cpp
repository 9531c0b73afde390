#include "Platform/Linux/Statistics/DurationHistogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace ostravel::linuxplatform {

namespace {

constexpr std::uint64_t kNanosecondsPerMicrosecond = 1000;
// Buckets for each power of two.
constexpr std::uint64_t kParts = 4;
constexpr unsigned kPartBits = 2;

}  // namespace

void DurationHistogram::record(Duration duration) {
  const auto nanoseconds = static_cast<std::uint64_t>(std::max<Duration::rep>(duration.count(), 0));
  // Rounded up: a bucket includes its upper boundary.
  const std::uint64_t microseconds =
      (nanoseconds + kNanosecondsPerMicrosecond - 1) / kNanosecondsPerMicrosecond;
  counts_[bucketOf(microseconds)].fetch_add(1, std::memory_order_relaxed);
  nanoseconds_.fetch_add(nanoseconds, std::memory_order_relaxed);
}

// Up to 7 every number has its own bucket; above, a bucket is a quarter of a power of two.
std::size_t DurationHistogram::bucketOf(std::uint64_t microseconds) {
  if (microseconds < kParts) {
    return static_cast<std::size_t>(microseconds);
  }
  const auto exponent = static_cast<unsigned>(std::bit_width(microseconds)) - 1;
  const std::uint64_t part = (microseconds >> (exponent - kPartBits)) & (kParts - 1);
  return std::min<std::size_t>((exponent - 1) * kParts + part, kBuckets - 1);
}

std::chrono::microseconds DurationHistogram::upperOf(std::size_t bucket) {
  if (bucket < kParts) {
    return std::chrono::microseconds(bucket);
  }
  const std::size_t exponent = bucket / kParts + 1;
  const std::size_t part = bucket % kParts;
  return std::chrono::microseconds(((kParts + part + 1) << (exponent - kPartBits)) - 1);
}

DurationHistogram::Snapshot DurationHistogram::snapshot() const {
  return sumOf({this});
}

DurationHistogram::Snapshot DurationHistogram::sumOf(
    const std::vector<const DurationHistogram*>& histograms) {
  Snapshot sum;
  std::uint64_t nanoseconds = 0;
  for (const auto* histogram : histograms) {
    nanoseconds += histogram->nanoseconds_.load(std::memory_order_relaxed);
  }
  sum.sum_ = std::chrono::microseconds(nanoseconds / kNanosecondsPerMicrosecond);
  for (std::size_t bucket = 0; bucket < kBuckets; ++bucket) {
    std::uint64_t count = 0;
    for (const auto* histogram : histograms) {
      count += histogram->counts_[bucket].load(std::memory_order_relaxed);
    }
    if (count > 0) {
      sum.buckets_.push_back({upperOf(bucket), count});
      sum.count_ += count;
    }
  }
  return sum;
}

std::optional<std::chrono::microseconds> DurationHistogram::Snapshot::percentile(
    double part) const {
  const auto wanted = static_cast<std::uint64_t>(std::ceil(part * static_cast<double>(count_)));
  std::uint64_t counted = 0;
  for (const Bucket& bucket : buckets_) {
    counted += bucket.count;
    if (counted >= wanted) {
      return bucket.upper;
    }
  }
  return std::nullopt;
}

}  // namespace ostravel::linuxplatform
