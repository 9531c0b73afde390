#include "Platform/Linux/Kernel/ConntrackRoom.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

namespace ostravel::linuxplatform {
namespace {

using Usage = ConntrackEntries::Usage;

class ConntrackRoomTest : public ::testing::Test {
 protected:
  bool hasRoom(std::uint32_t count, std::uint32_t limit = 1000) {
    usage_ = Usage{count, limit};
    return room_();
  }

  std::optional<Usage> usage_;
  ConntrackRoom room_{[this] { return usage_; }};
};

TEST_F(ConntrackRoomTest, EndsAtNineTenths) {
  EXPECT_TRUE(hasRoom(0));
  EXPECT_TRUE(hasRoom(899));
  EXPECT_FALSE(hasRoom(900));
  EXPECT_FALSE(hasRoom(1000));
}

TEST_F(ConntrackRoomTest, ReturnsBelowThreeQuarters) {
  EXPECT_FALSE(hasRoom(950));
  EXPECT_FALSE(hasRoom(750));
  EXPECT_TRUE(hasRoom(749));
  EXPECT_TRUE(hasRoom(899));
}

TEST_F(ConntrackRoomTest, IsThereWithoutALimit) {
  EXPECT_TRUE(room_());
  EXPECT_TRUE(hasRoom(5, 0));
}

TEST_F(ConntrackRoomTest, IsThereOnceTheKernelSaysNothing) {
  EXPECT_FALSE(hasRoom(950));
  usage_.reset();
  EXPECT_TRUE(room_());
}

TEST_F(ConntrackRoomTest, ReadsWhatTheKernelReports) {
  EXPECT_TRUE(ConntrackRoom()());
}

}  // namespace
}  // namespace ostravel::linuxplatform
