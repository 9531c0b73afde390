#include "Platform/Linux/Processes/SearchBudget.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(SearchBudgetTest, TimeOffTheProcessorDoesNotCount) {
  const SearchBudget budget(10ms, 1h);
  std::this_thread::sleep_for(30ms);
  EXPECT_FALSE(budget.isUsedUp());
}

TEST(SearchBudgetTest, WorkUsesItUp) {
  const auto start = Clock::now();
  const SearchBudget budget(10ms, 1h);
  while (!budget.isUsedUp()) {
    ASSERT_LT(Clock::now() - start, 60s);
  }
  EXPECT_GE(Clock::now() - start, 10ms);
}

TEST(SearchBudgetTest, TheClockLimitsItToo) {
  const SearchBudget budget(20ms, 30ms);
  std::this_thread::sleep_for(30ms);
  EXPECT_TRUE(budget.isUsedUp());
}

TEST(SearchBudgetTest, AnEmptyBudgetIsUsedUpFromTheStart) {
  EXPECT_TRUE(SearchBudget(0ms, 0ms).isUsedUp());
}

}  // namespace
}  // namespace ostravel::linuxplatform
