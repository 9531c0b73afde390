#include "Platform/Linux/Liveness/HangLimit.h"

#include <gtest/gtest.h>

#include <chrono>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

constexpr auto kUsual = 1s;
constexpr auto kStarved = 10s;

class HangLimitTest : public ::testing::Test {
 protected:
  std::chrono::seconds starvedAfter(HangLimit::Clock::duration time) {
    return limit_.observe(now_ += time, kUsual, true);
  }
  std::chrono::seconds runningAfter(HangLimit::Clock::duration time) {
    return limit_.observe(now_ += time, kUsual, false);
  }

  HangLimit::Clock::time_point now_{1234h};
  HangLimit limit_{kStarved};
};

TEST_F(HangLimitTest, IsTheUsualOneForARunningProcess) {
  EXPECT_EQ(runningAfter(0s), kUsual);
  EXPECT_EQ(runningAfter(1h), kUsual);
}

TEST_F(HangLimitTest, IsLongerWhileTheProcessIsStarved) {
  for (int observation = 0; observation < 100; ++observation) {
    EXPECT_EQ(starvedAfter(100ms), kStarved);
  }
}

TEST_F(HangLimitTest, IsTheUsualOneAgainAfterAStarvedMoment) {
  EXPECT_EQ(starvedAfter(0s), kStarved);
  EXPECT_EQ(runningAfter(kUsual - 1ns), kStarved);
  EXPECT_EQ(runningAfter(1ns), kUsual);
  EXPECT_EQ(runningAfter(1ns), kUsual);
}

TEST_F(HangLimitTest, CountsFromTheLastStarvedMoment) {
  EXPECT_EQ(starvedAfter(0s), kStarved);
  EXPECT_EQ(starvedAfter(kUsual - 1ns), kStarved);
  EXPECT_EQ(runningAfter(kUsual - 1ns), kStarved);
  EXPECT_EQ(runningAfter(1ns), kUsual);
}

TEST_F(HangLimitTest, ASecondStarvedMomentCountsToo) {
  EXPECT_EQ(starvedAfter(0s), kStarved);
  EXPECT_EQ(runningAfter(kUsual), kUsual);
  EXPECT_EQ(starvedAfter(1ns), kStarved);
}

TEST_F(HangLimitTest, ForgetsAStarvedMomentAfterProgress) {
  EXPECT_EQ(starvedAfter(0s), kStarved);
  limit_.forget();
  EXPECT_EQ(runningAfter(0s), kUsual);
}

TEST_F(HangLimitTest, IsNeverShorterForAStarvedProcess) {
  EXPECT_EQ(limit_.observe(now_, 2 * kStarved, true), 2 * kStarved);
}

}  // namespace
}  // namespace ostravel::linuxplatform
