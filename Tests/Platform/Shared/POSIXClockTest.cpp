#include "Platform/Shared/POSIXClock.h"

#include <gtest/gtest.h>

#include <ctime>

namespace ostravel::platform {
namespace {

TEST(POSIXClockTest, ReturnsTheTimeOfDayWithAFraction) {
  const POSIXClock clock;
  const auto before = std::time(nullptr);
  const double now = clock.secondsSince1970();
  const auto after = std::time(nullptr);
  // time() may still give the second before.
  EXPECT_GE(now, static_cast<double>(before));
  EXPECT_LE(now, static_cast<double>(after) + 2.0);
}

TEST(POSIXClockTest, DistinguishesMomentsWithinASecond) {
  const POSIXClock clock;
  const double first = clock.secondsSince1970();
  double next = first;
  while (next == first) {
    next = clock.secondsSince1970();
  }
  EXPECT_LT(next - first, 0.5);
}

// Timer interrupts of a starved machine may be late.
TEST(POSIXClockTest, CoarseTimeIsNearlyTheSame) {
  const POSIXClock clock;
  const double before = clock.secondsSince1970();
  const double coarse = clock.coarseSecondsSince1970();
  const double after = clock.secondsSince1970();
  EXPECT_GE(coarse, before - 30.0);
  EXPECT_LE(coarse, after + 0.001);
}

}  // namespace
}  // namespace ostravel::platform
