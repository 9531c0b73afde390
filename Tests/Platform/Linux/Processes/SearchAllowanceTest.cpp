#include "Platform/Linux/Processes/SearchAllowance.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

constexpr uid_t kAlice = 1000;
constexpr uid_t kBob = 1001;

class SearchAllowanceTest : public ::testing::Test {
 protected:
  // Searches while permitted, in steps that take a millisecond each.
  SearchAllowance::Duration spendAll(std::optional<uid_t> user) {
    SearchAllowance::Duration spent{};
    while (allowance_.permits(user)) {
      const SearchAllowance::Charge charge(allowance_, user, SearchAllowance::Counted::work);
      now_ += 1ms;
      work_ += 1ms;
      spent += 1ms;
    }
    return spent;
  }

  SearchAllowance::Clock::time_point now_{};
  SearchAllowance::Duration work_{};
  SearchAllowance allowance_{[this] { return now_; }, [this] { return work_; }};
};

TEST_F(SearchAllowanceTest, AskingSpendsNothing) {
  for (int i = 0; i < 1000; ++i) {
    EXPECT_TRUE(allowance_.permits(kAlice));
    EXPECT_TRUE(allowance_.permits(std::nullopt));
  }
}

TEST_F(SearchAllowanceTest, AllUsersTogetherGetATenthOfTheTime) {
  spendAll(std::nullopt);
  const auto start = now_;
  SearchAllowance::Duration spent{};
  while (now_ - start < 100s) {
    now_ += 10ms;
    spent += spendAll(std::nullopt);
  }
  EXPECT_GE(spent, 9900ms);
  EXPECT_LE(spent, 10100ms);
}

TEST_F(SearchAllowanceTest, OneUserGetsHalfOfTheTotal) {
  spendAll(kAlice);
  const auto start = now_;
  SearchAllowance::Duration spent{};
  while (now_ - start < 100s) {
    now_ += 10ms;
    spent += spendAll(kAlice);
  }
  EXPECT_GE(spent, 4900ms);
  EXPECT_LE(spent, 5100ms);
}

TEST_F(SearchAllowanceTest, LimitsABurst) {
  const auto spent = spendAll(std::nullopt);
  EXPECT_GE(spent, SearchAllowance::kBurst);
  EXPECT_LE(spent, SearchAllowance::kBurst * 9 / 8);
}

TEST_F(SearchAllowanceTest, UsersDoNotAffectEachOther) {
  spendAll(kAlice);
  EXPECT_FALSE(allowance_.permits(kAlice));
  const auto spent = spendAll(kBob);
  EXPECT_GE(spent, SearchAllowance::kUserBurst - 1ms);
}

TEST_F(SearchAllowanceTest, NoNumberOfUsersTakesTheReserve) {
  for (uid_t user = 0; user < 5000; ++user) {
    spendAll(user);
  }
  EXPECT_FALSE(allowance_.permits(kAlice));
  EXPECT_GE(spendAll(std::nullopt), SearchAllowance::kReserve - 1ms);
}

TEST_F(SearchAllowanceTest, TimeOffTheProcessorCountsForWaitsOnly) {
  {
    const SearchAllowance::Charge charge(allowance_, kAlice, SearchAllowance::Counted::work);
    now_ += 10s;
  }
  EXPECT_TRUE(allowance_.permits(kAlice));
  {
    const SearchAllowance::Charge charge(allowance_, kAlice, SearchAllowance::Counted::time);
    now_ += 60ms;
  }
  EXPECT_FALSE(allowance_.permits(kAlice));
}

TEST_F(SearchAllowanceTest, ALongSearchIsPaidOffLater) {
  allowance_.spend(kAlice, 150ms);
  EXPECT_FALSE(allowance_.permits(kAlice));
  EXPECT_FALSE(allowance_.permits(kBob));
  now_ += 500ms + 100ns;
  EXPECT_FALSE(allowance_.permits(kAlice));
  EXPECT_TRUE(allowance_.permits(kBob));
  now_ += 1499ms;
  EXPECT_FALSE(allowance_.permits(kAlice));
  now_ += 2ms;
  EXPECT_TRUE(allowance_.permits(kAlice));
}

TEST_F(SearchAllowanceTest, ManyUsersAreForgottenOnceTheyAreLikeNewOnes) {
  constexpr uid_t kMany = 3000;
  spendAll(kAlice);
  EXPECT_FALSE(allowance_.permits(kAlice));
  for (uid_t user = kBob; user < kBob + kMany; ++user) {
    allowance_.permits(user);
  }
  // A user who has spent something is not forgotten.
  EXPECT_FALSE(allowance_.permits(kAlice));
  now_ += 1h;
  EXPECT_TRUE(allowance_.permits(kAlice));
}

}  // namespace
}  // namespace ostravel::linuxplatform
