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

TEST_F(TimeTextTest, WritesTheDateAndTheZoneOnRequest) {
  EXPECT_EQ(timeText(1763271815.123, TimeStyle::timeOfDay), "07:43:35.123");
  EXPECT_EQ(timeText(1763271815.123, TimeStyle::local), "2025-11-16T07:43:35.123+02:00");
  EXPECT_EQ(timeText(1763271815.123, TimeStyle::utc), "2025-11-16T05:43:35.123Z");
}

TEST_F(TimeTextTest, WritesAZoneWestOfGreenwichWithAMinus) {
  // Newfoundland's standard time.
  ::setenv("TZ", "NST3:30", 1);
  ::tzset();
  EXPECT_EQ(timeText(1763271815.123, TimeStyle::local), "2025-11-16T02:13:35.123-03:30");
}

TEST_F(TimeTextTest, WritesNoDateOutsideTheCalendar) {
  EXPECT_EQ(timeText(1e300, TimeStyle::utc), "----------T--:--:--.---");
  EXPECT_EQ(timeText(8.9e12, TimeStyle::local).substr(0, 6), "283999");
}

TEST_F(TimeTextTest, KnowsTheStylesByName) {
  EXPECT_EQ(timeStyleNamed("time"), TimeStyle::timeOfDay);
  EXPECT_EQ(timeStyleNamed("local"), TimeStyle::local);
  EXPECT_EQ(timeStyleNamed("utc"), TimeStyle::utc);
  EXPECT_EQ(timeStyleNamed("UTC"), std::nullopt);
}

TEST(DurationText, HasThreeDigitsAndAUnit) {
  EXPECT_EQ(durationText(0.0), "0.00 ms");
  EXPECT_EQ(durationText(0.00125), "1.25 ms");
  EXPECT_EQ(durationText(0.0284), "28.4 ms");
  EXPECT_EQ(durationText(0.3184), "318 ms");
  EXPECT_EQ(durationText(0.9994), "999 ms");
  EXPECT_EQ(durationText(0.9996), "1.00 s");
  EXPECT_EQ(durationText(119.4), "119 s");
  EXPECT_EQ(durationText(720.0), "12.0 min");
  EXPECT_EQ(durationText(12'600.0), "3.50 h");
}

TEST(DurationText, HasNoNumberForAnImpossibleDifference) {
  EXPECT_EQ(durationText(-0.5), "?");
  EXPECT_EQ(durationText(std::numeric_limits<double>::infinity()), "?");
  EXPECT_EQ(durationText(std::numeric_limits<double>::quiet_NaN()), "?");
}

}  // namespace
}  // namespace ostravel::companion
