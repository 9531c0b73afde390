#include "Platform/Interface/Callback.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace ostravel::platform {
namespace {

using Count = Callback<void(int)>;

TEST(Callback, IsEmptyUntilItIsGivenAFunction) {
  EXPECT_FALSE(Count());
  EXPECT_FALSE(Count(nullptr));
  EXPECT_TRUE(Count() == nullptr);
  EXPECT_FALSE(Count(std::function<void(int)>()));
  EXPECT_TRUE(Count([](int) {}));
  EXPECT_TRUE(Count([](int) {}) != nullptr);
}

TEST(Callback, PassesItsArguments) {
  int sum = 0;
  const Count add = [&sum](int number) { sum += number; };
  add(2);
  add(3);
  EXPECT_EQ(sum, 5);

  std::string seen;
  const Callback<void(std::unique_ptr<std::string>)> take =
      [&seen](std::unique_ptr<std::string> text) { seen = *text; };
  take(std::make_unique<std::string>("moved"));
  EXPECT_EQ(seen, "moved");
}

TEST(Callback, TakesAFunctionWithOtherParameters) {
  std::string seen;
  const Callback<void(std::string)> byReference = [&seen](const std::string& text) { seen = text; };
  byReference("text");
  EXPECT_EQ(seen, "text");
}

TEST(Callback, KeepsTheStateOfItsFunction) {
  int last = 0;
  const Count counter = [&last, sum = 0](int number) mutable { last = sum += number; };
  counter(1);
  counter(2);
  EXPECT_EQ(last, 3);
}

// Small functions are kept in place, large ones on the heap.
template <typename Padding>
class CallbackOf : public ::testing::Test {};

using Paddings = ::testing::Types<std::array<char, 1>, std::array<char, 100>>;
TYPED_TEST_SUITE(CallbackOf, Paddings);

TYPED_TEST(CallbackOf, DestroysItsFunctionOnce) {
  const auto held = std::make_shared<int>(0);
  {
    const Count callback = [held, padding = TypeParam{}](int) { static_cast<void>(padding); };
    EXPECT_EQ(held.use_count(), 2);
  }
  EXPECT_EQ(held.use_count(), 1);
}

TYPED_TEST(CallbackOf, CanBeCopied) {
  const auto sum = std::make_shared<int>(0);
  const Count original = [sum, padding = TypeParam{}](int number) {
    static_cast<void>(padding);
    *sum += number;
  };
  {
    const Count copy = original;  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(sum.use_count(), 3);
    copy(1);
  }
  original(2);
  EXPECT_EQ(*sum, 3);
  EXPECT_EQ(sum.use_count(), 2);
}

TYPED_TEST(CallbackOf, CanBeMovedAndReplaced) {
  const auto sum = std::make_shared<int>(0);
  Count source = [sum, padding = TypeParam{}](int number) {
    static_cast<void>(padding);
    *sum += number;
  };
  Count target = std::move(source);
  EXPECT_FALSE(source);  // NOLINT(bugprone-use-after-move): this is what is tested
  target(4);
  EXPECT_EQ(*sum, 4);

  const auto taken = std::exchange(target, nullptr);
  EXPECT_FALSE(target);
  taken(1);
  EXPECT_EQ(*sum, 5);

  target = taken;
  target = [](int) {};
  target = nullptr;
  EXPECT_EQ(sum.use_count(), 2);
}

// Destroying a completion may release the object that holds the callback.
TEST(Callback, MayBeAssignedToWhileItIsReplaced) {
  Count callback;
  bool hasRun = false;
  const auto atEnd = [&callback, &hasRun](int* number) {
    delete number;
    callback = [&hasRun](int) { hasRun = true; };
  };
  callback = [held = std::shared_ptr<int>(new int(0), atEnd)](int) {};

  callback = nullptr;

  ASSERT_TRUE(callback);
  callback(0);
  EXPECT_TRUE(hasRun);
}

TEST(Callback, IsThreeWords) {
  EXPECT_EQ(sizeof(Count), 3 * sizeof(void*));
}

TEST(Callback, CanBecomeAStandardFunction) {
  int sum = 0;
  const std::function<void(int)> function = Count([&sum](int number) { sum += number; });
  function(7);
  EXPECT_EQ(sum, 7);
}

}  // namespace
}  // namespace ostravel::platform
