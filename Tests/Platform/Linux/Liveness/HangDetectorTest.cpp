#include "Platform/Linux/Liveness/HangDetector.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

constexpr auto kLimit = 1s;
constexpr auto kTick = HangDetector::kInterval;

class HangDetectorTest : public ::testing::Test {
 protected:
  // Observes after this much time, which may be negative.
  bool observeAfter(HangDetector::Clock::duration time) {
    now_ += time;
    return detector_.observe(now_, counter_, kLimit);
  }

  // Observes in time until this much has passed or a hang is reported; returns whether one was.
  bool observeFor(HangDetector::Clock::duration time) {
    for (; time > kTick; time -= kTick) {
      if (observeAfter(kTick)) {
        return true;
      }
    }
    return observeAfter(time);
  }

  HangDetector::Clock::time_point now_{1234h};
  std::uint32_t counter_ = 7;
  HangDetector detector_{now_, counter_};
};

TEST_F(HangDetectorTest, ReportsNoHangJustBeforeTheLimit) {
  EXPECT_FALSE(observeFor(kLimit - 1ns));
}

TEST_F(HangDetectorTest, ReportsAHangAtTheLimit) {
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  EXPECT_TRUE(observeAfter(1ns));
}

TEST_F(HangDetectorTest, KeepsReportingAHang) {
  EXPECT_TRUE(observeFor(kLimit));
  EXPECT_TRUE(observeAfter(kTick));
}

TEST_F(HangDetectorTest, MeasuresFromTheLastChange) {
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  ++counter_;
  EXPECT_FALSE(observeAfter(kTick));
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  EXPECT_TRUE(observeAfter(1ns));
}

TEST_F(HangDetectorTest, ReportsNoHangWhileTheCounterChanges) {
  for (int i = 0; i < 1000; ++i) {
    ++counter_;
    ASSERT_FALSE(observeFor(kLimit - 1ns));
  }
}

TEST_F(HangDetectorTest, AChangeAtTheLastMomentIsInTime) {
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  ++counter_;
  EXPECT_FALSE(observeAfter(1h));
}

TEST_F(HangDetectorTest, TheCounterMayWrapAround) {
  counter_ = std::numeric_limits<std::uint32_t>::max();
  EXPECT_FALSE(observeAfter(kTick));
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  ++counter_;
  EXPECT_EQ(counter_, 0U);
  EXPECT_FALSE(observeAfter(kTick));
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  EXPECT_TRUE(observeAfter(1ns));
}

TEST_F(HangDetectorTest, UnobservedTimeDoesNotCount) {
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  // As after a suspend, or a pause of the virtual machine.
  EXPECT_FALSE(observeAfter(8h));
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  EXPECT_TRUE(observeAfter(1ns));
}

TEST_F(HangDetectorTest, AnObservationMayBeALittleLate) {
  EXPECT_FALSE(observeAfter(HangDetector::kLongestGap));
  EXPECT_TRUE(observeAfter(HangDetector::kLongestGap));
}

TEST_F(HangDetectorTest, ATooLateObservationRestartsTheMeasurement) {
  EXPECT_FALSE(observeAfter(HangDetector::kLongestGap + 1ns));
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  EXPECT_TRUE(observeAfter(1ns));
}

TEST_F(HangDetectorTest, AnObserverThatIsAlwaysLateReportsNothing) {
  for (int i = 0; i < 100; ++i) {
    EXPECT_FALSE(observeAfter(HangDetector::kLongestGap + 1ns));
  }
}

TEST_F(HangDetectorTest, AClockThatGoesBackRestartsTheMeasurement) {
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  EXPECT_FALSE(observeAfter(-1h));
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  EXPECT_TRUE(observeAfter(1ns));
}

TEST_F(HangDetectorTest, TwoObservationsAtTheSameTimeDoNotRestartTheMeasurement) {
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  EXPECT_FALSE(observeAfter(0ns));
  EXPECT_TRUE(observeAfter(1ns));
}

TEST_F(HangDetectorTest, TheLimitMayChange) {
  EXPECT_FALSE(observeFor(kLimit - 1ns));
  now_ += kTick;
  EXPECT_FALSE(detector_.observe(now_, counter_, 2 * kLimit));
  EXPECT_TRUE(observeAfter(kTick));
}

}  // namespace
}  // namespace ostravel::linuxplatform
