#include "Base/CalendarText.h"

#include <gtest/gtest.h>

#include <string>

namespace ostravel {
namespace {

using namespace std::chrono_literals;
using std::chrono::sys_days;

std::string textOf(std::chrono::sys_seconds moment) {
  std::string text;
  appendCalendarText(text, moment);
  return text;
}

TEST(CalendarTextTest, WritesTheEpoch) {
  EXPECT_EQ(textOf(std::chrono::sys_seconds{}), "1970-01-01T00:00:00");
}

TEST(CalendarTextTest, PadsEveryPart) {
  EXPECT_EQ(textOf(sys_days{2026y / 3 / 4} + 5h + 6min + 7s), "2026-03-04T05:06:07");
}

TEST(CalendarTextTest, WritesTheFirstAndTheLastYear) {
  EXPECT_EQ(textOf(sys_days{0y / 1 / 1}), "0000-01-01T00:00:00");
  EXPECT_EQ(textOf(sys_days{9999y / 12 / 31} + 23h + 59min + 59s), "9999-12-31T23:59:59");
}

TEST(CalendarTextTest, KeepsWhatIsInFront) {
  std::string text = "at ";
  appendCalendarText(text, sys_days{2000y / 2 / 29});
  EXPECT_EQ(text, "at 2000-02-29T00:00:00");
}

TEST(CalendarTextTest, OfEachMomentIsItsOwn) {
  const auto moment = sys_days{2026y / 3 / 4} + 5h + 6min + 7s;
  for (int time = 0; time < 2; ++time) {
    EXPECT_EQ(textOf(moment), "2026-03-04T05:06:07");
    EXPECT_EQ(textOf(moment), "2026-03-04T05:06:07");
    EXPECT_EQ(textOf(moment + 1s), "2026-03-04T05:06:08");
    EXPECT_EQ(textOf(std::chrono::sys_seconds{}), "1970-01-01T00:00:00");
  }
}

TEST(CalendarTextTest, PadsNumbers) {
  std::string text;
  appendPadded(text, 0, 3);
  appendPadded(text, 45, 3);
  appendPadded(text, 678, 3);
  appendPadded(text, 90123, 3);
  EXPECT_EQ(text, "00004567890123");
}

}  // namespace
}  // namespace ostravel
