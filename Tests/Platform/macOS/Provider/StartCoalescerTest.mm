#import "Platform/macOS/Provider/StartCoalescer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ostravel::macos::test {
namespace {

class StartCoalescerTest : public ::testing::Test {
 protected:
  // Records the answer under the name of the start.
  platform::ErrorCompletion noting(const std::string& name) {
    return [this, name](const platform::OptionalError& error) {
      answers_.push_back(name + (error ? " failed with " + std::to_string(error->code) : " runs"));
    };
  }

  const platform::Error failure_{"Domain", 4, ""};
  StartCoalescer starts_;
  std::vector<std::string> answers_;
};

using Answers = std::vector<std::string>;

TEST_F(StartCoalescerTest, OnlyTheFirstStartIsAdmitted) {
  EXPECT_TRUE(starts_.admit(noting("first")));
  EXPECT_FALSE(starts_.admit(noting("second")));
  EXPECT_EQ(answers_, Answers());
}

TEST_F(StartCoalescerTest, WaitingStartsAreAnsweredInTheirOrder) {
  const auto completion = starts_.admit(noting("first"));
  starts_.admit(noting("second"));
  starts_.admit(noting("third"));
  (*completion)(failure_);
  EXPECT_EQ(answers_,
            (Answers{"first failed with 4", "second failed with 4", "third failed with 4"}));
}

TEST_F(StartCoalescerTest, AStartAfterTheResultIsAnsweredAtOnce) {
  (*starts_.admit(noting("first")))(std::nullopt);
  EXPECT_FALSE(starts_.admit(noting("second")));
  EXPECT_EQ(answers_, (Answers{"first runs", "second runs"}));
}

TEST_F(StartCoalescerTest, AFailedStartIsTheResultUntilTheStop) {
  (*starts_.admit(noting("first")))(failure_);
  EXPECT_FALSE(starts_.admit(noting("second")));
  starts_.noteStop();
  EXPECT_TRUE(starts_.admit(noting("third")));
  EXPECT_EQ(answers_, (Answers{"first failed with 4", "second failed with 4"}));
}

TEST_F(StartCoalescerTest, AStopKeepsTheStartsOfDifferentRunsApart) {
  const auto first = starts_.admit(noting("first"));
  starts_.admit(noting("second"));
  starts_.noteStop();
  const auto third = starts_.admit(noting("third"));
  ASSERT_TRUE(third);
  (*third)(std::nullopt);
  (*first)(failure_);
  EXPECT_EQ(answers_, (Answers{"third runs", "first failed with 4", "second failed with 4"}));
}

TEST_F(StartCoalescerTest, ACompletionMayStartAgain) {
  const auto completion = starts_.admit([this](const platform::OptionalError&) {
    starts_.noteStop();
    EXPECT_TRUE(starts_.admit(noting("again")));
  });
  (*completion)(std::nullopt);
  EXPECT_EQ(answers_, Answers());
}

TEST_F(StartCoalescerTest, TheResultMayComeAfterTheCoalescerIsDestroyed) {
  std::optional<platform::ErrorCompletion> completion;
  {
    StartCoalescer starts;
    completion = starts.admit(noting("first"));
  }
  (*completion)(std::nullopt);
  EXPECT_EQ(answers_, (Answers{"first runs"}));
}

}  // namespace
}  // namespace ostravel::macos::test
