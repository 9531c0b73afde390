#include "Platform/Linux/Statistics/DurationHistogram.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <vector>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using std::chrono::microseconds;

microseconds bucketOf(DurationHistogram::Duration duration) {
  DurationHistogram histogram;
  histogram.record(duration);
  return histogram.snapshot().buckets().front().upper;
}

TEST(DurationHistogramTest, IsEmptyAtFirst) {
  const auto snapshot = DurationHistogram().snapshot();
  EXPECT_EQ(snapshot.count(), 0U);
  EXPECT_TRUE(snapshot.buckets().empty());
  EXPECT_FALSE(snapshot.percentile(0.5));
}

TEST(DurationHistogramTest, HasABucketForEachSmallNumber) {
  for (int number = 0; number < 8; ++number) {
    EXPECT_EQ(bucketOf(microseconds(number)), microseconds(number));
  }
}

TEST(DurationHistogramTest, RoundsUpToAWholeMicrosecond) {
  EXPECT_EQ(bucketOf(4001ns), 5us);
  EXPECT_EQ(bucketOf(4000ns), 4us);
}

TEST(DurationHistogramTest, IsAtMostAQuarterTooHigh) {
  for (std::int64_t number = 1; number < 60'000'000; number += 1 + number / 7) {
    const auto upper = bucketOf(microseconds(number)).count();
    EXPECT_GE(upper, number);
    EXPECT_LE(static_cast<double>(upper), 1.25 * static_cast<double>(number));
  }
}

TEST(DurationHistogramTest, CountsOverlongDurationsInTheLastBucket) {
  EXPECT_EQ(bucketOf(1h), bucketOf(2min));
  EXPECT_EQ(bucketOf(-5ms), 0us);
}

TEST(DurationHistogramTest, FindsPercentiles) {
  DurationHistogram histogram;
  for (int number = 1; number <= 100; ++number) {
    histogram.record(number <= 98 ? 3us : 1000us);
  }
  const auto snapshot = histogram.snapshot();
  EXPECT_EQ(snapshot.count(), 100U);
  EXPECT_EQ(snapshot.sum(), 98 * 3us + 2 * 1000us);
  EXPECT_EQ(snapshot.percentile(0.5), 3us);
  EXPECT_EQ(snapshot.percentile(0.98), 3us);
  EXPECT_EQ(snapshot.percentile(0.99), 1023us);
  EXPECT_EQ(snapshot.percentile(1), 1023us);
}

TEST(DurationHistogramTest, AddsHistogramsUp) {
  DurationHistogram first;
  DurationHistogram second;
  first.record(5us);
  second.record(5us);
  second.record(7us);
  const auto sum = DurationHistogram::sumOf({&first, &second});
  EXPECT_EQ(sum.count(), 3U);
  ASSERT_EQ(sum.buckets().size(), 2U);
  EXPECT_EQ(sum.buckets()[0].count, 2U);
}

}  // namespace
}  // namespace ostravel::linuxplatform
