#include "Platform/Linux/Kernel/ConntrackRoom.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

class ConntrackRoomTest : public ::testing::Test {
 protected:
  bool hasRoom(int count, int limit = 1000) {
    std::ofstream(folder_.path("nf_conntrack_count")) << count << "\n";
    std::ofstream(folder_.path("nf_conntrack_max")) << limit << "\n";
    return room_();
  }

  const testing::TemporaryFolder folder_;
  ConntrackRoom room_{folder_.path()};
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
  EXPECT_TRUE(ConntrackRoom(folder_.path("absent"))());
  EXPECT_TRUE(hasRoom(5, 0));
}

TEST_F(ConntrackRoomTest, ReadsWhatTheKernelReports) {
  EXPECT_TRUE(ConntrackRoom()());
}

}  // namespace
}  // namespace ostravel::linuxplatform
