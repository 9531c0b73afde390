#import "Platform/macOS/Foundation/Reference.h"

#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <memory>
#include <utility>

namespace ostravel::macos::test {
namespace {

using Block = int (^)(void);

NSUInteger countOf(NSObject* object) {
  return [object retainCount];
}

TEST(ReferenceTest, AdoptingTakesOverTheCallersReference) {
  NSObject* const object = [[NSObject alloc] init];
  [object retain];
  {
    const auto reference = Reference<NSObject*>::adopting(object);
    EXPECT_EQ(reference.get(), object);
    EXPECT_EQ(countOf(object), 2U);
  }
  EXPECT_EQ(countOf(object), 1U);
  [object release];
}

TEST(ReferenceTest, RetainingAndCopyingAddOneReferenceEach) {
  NSObject* const object = [[NSObject alloc] init];
  {
    const auto first = Reference<NSObject*>::retaining(object);
    const Reference<NSObject*> second(first);
    EXPECT_EQ(countOf(object), 3U);
  }
  EXPECT_EQ(countOf(object), 1U);
  [object release];
}

TEST(ReferenceTest, MovingAddsNoReference) {
  NSObject* const object = [[NSObject alloc] init];
  auto first = Reference<NSObject*>::retaining(object);
  auto second = std::move(first);
  EXPECT_EQ(countOf(object), 2U);
  second = {};
  EXPECT_EQ(countOf(object), 1U);
  [object release];
}

TEST(ReferenceTest, AssigningReleasesWhatWasHeld) {
  NSObject* const object = [[NSObject alloc] init];
  auto reference = Reference<NSObject*>::retaining(object);
  const auto& same = reference;
  reference = same;
  EXPECT_EQ(countOf(object), 2U);
  reference = Reference<NSObject*>::adopting([[NSObject alloc] init]);
  EXPECT_EQ(countOf(object), 1U);
  [object release];
}

TEST(ReferenceTest, NilMayBeHeld) {
  const Reference<NSObject*> empty;
  const Reference<NSObject*> copy(empty);
  EXPECT_EQ(copy.get(), nil);
  const auto noBlock = Reference<Block>::retaining(nullptr);
  EXPECT_FALSE(noBlock.get());
}

TEST(ReferenceTest, ABlockAndItsCapturesOutliveTheirScope) {
  NSObject* const object = [[NSObject alloc] init];
  const auto shared = std::make_shared<int>(42);
  {
    Reference<Block> kept;
    {
      kept = Reference<Block>::retaining(^{
        return object != nil ? *shared : 0;
      });
    }
    EXPECT_EQ(kept.get()(), 42);
    EXPECT_EQ(countOf(object), 2U);
    EXPECT_EQ(shared.use_count(), 2);
  }
  EXPECT_EQ(countOf(object), 1U);
  EXPECT_EQ(shared.use_count(), 1);
  [object release];
}

}  // namespace
}  // namespace ostravel::macos::test
