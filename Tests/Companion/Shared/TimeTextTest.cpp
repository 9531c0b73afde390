#include "Companion/Shared/TimeText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

namespace ostravel::companion {
namespace {

class TimeTextTest : public ::testing::Test {
 protected:
  TimeTextTest() {
    ::setenv("TZ", "UTC-2", 1);
    ::tzset();
  }
  ~TimeTextTest() override {
    ::unsetenv("TZ");
    ::tzset();
  }
};

TEST_F(TimeTextTest, ShowsTheLocalTimeOfDay) {
  EXPECT_EQ(timeOfDay(1763271815.123), "07:43:35.123");
  EXPECT_EQ(timeOfDay(std::chrono::system_clock::time_point(std::chrono::milliseconds(5))),
            "02:00:00.005");
}

TEST_F(TimeTextTest, KeepsEveryMillisecondOfADecimalFraction) {
  for (int millisecond = 0; millisecond < 1000; ++millisecond) {
    const double seconds = std::strtod(
        ("1763271815." + std::to_string(1000 + millisecond).substr(1)).c_str(), nullptr);
    EXPECT_EQ(timeOfDay(seconds), "07:43:35." + std::to_string(1000 + millisecond).substr(1));
  }
}

TEST_F(TimeTextTest, CountsForwardBefore1970) {
  EXPECT_EQ(timeOfDay(-0.25), "01:59:59.750");
}

TEST_F(TimeTextTest, ShowsNoTimeOutsideTheCalendar) {
  EXPECT_EQ(timeOfDay(1e300), "--:--:--.---");
  EXPECT_EQ(timeOfDay(-1e300), "--:--:--.---");
  EXPECT_EQ(timeOfDay(std::numeric_limits<double>::quiet_NaN()), "--:--:--.---");
}

}  // namespace
}  // namespace ostravel::companion
