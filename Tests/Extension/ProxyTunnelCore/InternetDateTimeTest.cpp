#include "Extension/ProxyTunnelCore/InternetDateTime.h"

#include <gtest/gtest.h>

#include <limits>

namespace ostravel {
namespace {

TEST(InternetDateTime, WritesTheEpoch) {
  EXPECT_EQ(internetDateTime(0.0), "1970-01-01T00:00:00Z");
}

TEST(InternetDateTime, WritesUTCWithWholeSecondsAndZ) {
  EXPECT_EQ(internetDateTime(1794807815.0), "2026-11-16T05:43:35Z");
}

TEST(InternetDateTime, CutsAFractionOff) {
  EXPECT_EQ(internetDateTime(1794807815.999), "2026-11-16T05:43:35Z");
}

TEST(InternetDateTime, KnowsLeapDays) {
  EXPECT_EQ(internetDateTime(951782400.0), "2000-02-29T00:00:00Z");
  EXPECT_EQ(internetDateTime(4107542400.0), "2100-03-01T00:00:00Z");
}

TEST(InternetDateTime, WritesTheLastSecondOfADayAndTheFirstOfTheNext) {
  EXPECT_EQ(internetDateTime(1798761599.0), "2026-12-31T23:59:59Z");
  EXPECT_EQ(internetDateTime(1798761600.0), "2027-01-01T00:00:00Z");
}

TEST(InternetDateTime, StaysWithinWhatTheFormatCanWrite) {
  EXPECT_EQ(internetDateTime(-1.0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(internetDateTime(1e300), "9999-12-31T23:59:59Z");
  EXPECT_EQ(internetDateTime(std::numeric_limits<double>::quiet_NaN()), "1970-01-01T00:00:00Z");
}

}  // namespace
}  // namespace ostravel
