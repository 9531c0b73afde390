#include "Platform/Linux/Relay/Task.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <utility>

namespace ostravel::linuxplatform::test {
namespace {

TEST(TaskTest, RunsItsFunction) {
  int runs = 0;
  Task task([&runs] { ++runs; });
  ASSERT_TRUE(task);
  task();
  EXPECT_EQ(runs, 1);
  EXPECT_FALSE(Task());
}

TEST(TaskTest, HoldsAMoveOnlyFunction) {
  int seen = 0;
  Task task([number = std::make_unique<int>(7), &seen] { seen = *number; });
  Task moved(std::move(task));
  EXPECT_FALSE(task);  // NOLINT(bugprone-use-after-move): this is what is tested
  moved();
  EXPECT_EQ(seen, 7);
}

TEST(TaskTest, HoldsAFunctionThatNeedsMoreRoom) {
  std::array<int, 64> numbers{};
  numbers.back() = 9;
  int seen = 0;
  Task task([numbers, &seen] { seen = numbers.back(); });
  Task assigned;
  assigned = std::move(task);
  assigned();
  EXPECT_EQ(seen, 9);
}

TEST(TaskTest, DestroysItsWorkOnce) {
  const auto small = std::make_shared<int>(0);
  const auto large = std::make_shared<int>(0);
  {
    Task task([small] {});
    Task other([large, room = std::array<int, 64>{}] { static_cast<void>(room); });
    EXPECT_EQ(small.use_count(), 2);
    task = std::move(other);
    EXPECT_EQ(small.use_count(), 1);
    EXPECT_EQ(large.use_count(), 2);
  }
  EXPECT_EQ(large.use_count(), 1);
}

// A task that waits for a socket may own an object whose destructor waits again.
TEST(TaskTest, MayBeAssignedToWhileItIsReplaced) {
  Task task;
  bool hasRun = false;
  const auto atEnd = [&task, &hasRun](int* number) {
    delete number;
    task = [&hasRun] { hasRun = true; };
  };
  task = [object = std::shared_ptr<int>(new int(1), atEnd)] { static_cast<void>(object); };
  task = Task();
  ASSERT_TRUE(task);
  task();
  EXPECT_TRUE(hasRun);
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
