#include "Platform/Linux/Statistics/LiveFlows.h"

#include <gtest/gtest.h>

#include <vector>

#include "Platform/Linux/Statistics/FlowJournal.h"
#include "Platform/Shared/POSIXClock.h"

namespace ostravel::linuxplatform {
namespace {

constexpr std::size_t kMost = LiveFlows::kSlotsPerChunk * LiveFlows::kMaximumChunks;

class LiveFlowsTest : public ::testing::Test {
 protected:
  Reference<FlowRecord> open() {
    auto record = journal_.open({.begin = FlowRecord::Clock::now()}, 0);
    record->decided(platform::FlowRule::proxied);
    return record;
  }

  platform::POSIXClock clock_;
  FlowJournal journal_{clock_, 1};
  LiveFlows flows_;
};

TEST_F(LiveFlowsTest, ListsAsManyFlowsAsItHasRoomFor) {
  const Reference<FlowRecord> record = open();
  for (std::size_t count = 0; count + 1 < kMost; ++count) {
    flows_.add(record);
  }
  EXPECT_EQ(flows_.all().size(), kMost - 1);
  flows_.add(record);
  EXPECT_EQ(flows_.all().size(), kMost);
  const Reference<FlowRecord> further = open();
  flows_.add(further);
  EXPECT_EQ(flows_.all().size(), kMost);
  // It is not kept either.
  EXPECT_EQ(further.count(), 1);
}

TEST_F(LiveFlowsTest, HasRoomAgainWhenFlowsHaveEnded) {
  const Reference<FlowRecord> ended = open();
  flows_.add(ended);
  const Reference<FlowRecord> record = open();
  for (std::size_t count = 1; count < kMost; ++count) {
    flows_.add(record);
  }
  ended->ended(platform::FlowEnd::closed, "eof");
  std::vector<Reference<FlowRecord>> swept;
  flows_.sweep(kMost, swept);
  ASSERT_EQ(swept.size(), 1U);
  EXPECT_EQ(swept.front(), ended);
  EXPECT_EQ(flows_.all().size(), kMost - 1);
  const Reference<FlowRecord> further = open();
  flows_.add(further);
  EXPECT_EQ(flows_.all().size(), kMost);
  EXPECT_EQ(further.count(), 2);
}

}  // namespace
}  // namespace ostravel::linuxplatform
