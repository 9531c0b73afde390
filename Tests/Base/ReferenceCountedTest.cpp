#include "Base/ReferenceCounted.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

#include "Base/SharedText.h"

namespace ostravel {
namespace {

struct Counting final : ReferenceCounted {
  explicit Counting(int& destroyed) : destroyed_(destroyed) {}
  ~Counting() { ++destroyed_; }

  int& destroyed_;
};

class ReferenceTest : public ::testing::Test {
 protected:
  int destroyed_ = 0;
};

TEST_F(ReferenceTest, TakesOneWord) {
  EXPECT_EQ(sizeof(Reference<Counting>), sizeof(void*));
  EXPECT_EQ(sizeof(SharedText), sizeof(void*));
}

TEST_F(ReferenceTest, TheLastOneDestroysTheObject) {
  auto first = makeReference<Counting>(destroyed_);
  auto second = first;
  EXPECT_EQ(first, second);
  EXPECT_EQ(first.count(), 2U);
  first = nullptr;
  EXPECT_EQ(destroyed_, 0);
  second = nullptr;
  EXPECT_EQ(destroyed_, 1);
  EXPECT_EQ(second.count(), 0U);
}

TEST_F(ReferenceTest, MovingPassesTheOwnership) {
  auto first = makeReference<Counting>(destroyed_);
  const auto second = std::move(first);
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): null afterwards
  EXPECT_EQ(second.count(), 1U);
}

TEST_F(ReferenceTest, ReplacingReleasesWhatItReferredTo) {
  auto reference = makeReference<Counting>(destroyed_);
  reference = makeReference<Counting>(destroyed_);
  EXPECT_EQ(destroyed_, 1);
  EXPECT_EQ(reference.count(), 1U);
}

TEST_F(ReferenceTest, APlainPointerCanOwnTheObjectMeanwhile) {
  auto reference = makeReference<Counting>(destroyed_);
  Counting* const plain = reference.detach();
  EXPECT_FALSE(reference);
  EXPECT_EQ(destroyed_, 0);
  EXPECT_EQ(Reference<Counting>::adopt(plain).count(), 1U);
  EXPECT_EQ(destroyed_, 1);
}

TEST_F(ReferenceTest, CanBeCopiedOnSeveralThreads) {
  auto reference = makeReference<Counting>(destroyed_);
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([reference] {
      for (int copy = 0; copy < 10'000; ++copy) {
        const auto copied = reference;  // NOLINT(performance-unnecessary-copy-initialization)
        EXPECT_TRUE(copied);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  threads.clear();
  EXPECT_EQ(reference.count(), 1U);
}

}  // namespace
}  // namespace ostravel
