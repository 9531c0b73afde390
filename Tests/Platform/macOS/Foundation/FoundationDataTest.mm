#import "Platform/macOS/Foundation/FoundationData.h"

#include <gtest/gtest.h>

#import "Tests/Platform/macOS/Support/PoolTest.h"

namespace ostravel::macos::test {
namespace {

class FoundationDataTest : public PoolTest {};

TEST_F(FoundationDataTest, AChunkIsNotCopiedOnItsWayThrough) {
  NSData* const data = [NSData dataWithBytes:"hello" length:5];
  const auto chunk = dataFrom(data);
  ASSERT_TRUE(chunk);
  EXPECT_EQ(chunk->size(), 5U);
  EXPECT_EQ(static_cast<const void*>(chunk->bytes().data()), [data bytes]);
  EXPECT_EQ(makeNSData(*chunk), data);
}

TEST_F(FoundationDataTest, AChunkKeepsItsObject) {
  NSData* const data = [[NSData alloc] initWithBytes:"hello" length:5];
  const auto chunk = dataFrom(data);
  [data release];
  EXPECT_EQ(static_cast<char>(chunk->bytes().back()), 'o');
}

TEST_F(FoundationDataTest, AReturnedObjectOutlivesItsChunk) {
  NSData* const data = [[NSData alloc] initWithBytes:"hello" length:5];
  auto chunk = dataFrom(data);
  [data release];
  NSData* const given = makeNSData(*chunk);
  chunk.reset();
  EXPECT_EQ([given length], 5U);
}

TEST_F(FoundationDataTest, NoDataIsNotEmptyData) {
  EXPECT_FALSE(dataFrom(nil));
  ASSERT_TRUE(dataFrom([NSData data]));
  EXPECT_TRUE(dataFrom([NSData data])->empty());
}

TEST_F(FoundationDataTest, OtherChunksAreCopied) {
  NSData* const data = makeNSData(platform::Data::copyOf("hello"));
  EXPECT_TRUE([data isEqualToData:[NSData dataWithBytes:"hello" length:5]]);
  EXPECT_EQ([makeNSData(platform::Data()) length], 0U);
}

}  // namespace
}  // namespace ostravel::macos::test
