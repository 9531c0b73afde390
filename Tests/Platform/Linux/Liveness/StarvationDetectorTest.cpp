#include "Platform/Linux/Liveness/StarvationDetector.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

class StarvationDetectorTest : public ::testing::Test {
 protected:
  // What the kernel shows of a thread.
  void show(const std::string& thread, char state, const std::string& runningTime) {
    std::filesystem::create_directories(tasks_.path(thread));
    std::ofstream(tasks_.path(thread + "/stat")) << thread << " (a ) R name) " << state << " 1 2";
    std::ofstream(tasks_.path(thread + "/schedstat")) << runningTime << " 5 6\n";
  }

  const testing::TemporaryFolder tasks_;
  StarvationDetector detector_{tasks_.path()};
};

TEST_F(StarvationDetectorTest, AThreadThatIsReadyAndDoesNotRunIsStarved) {
  show("1", 'S', "100");
  show("2", 'R', "100");
  EXPECT_FALSE(detector_.observe());
  EXPECT_TRUE(detector_.observe());
}

TEST_F(StarvationDetectorTest, ASpinningThreadRuns) {
  show("1", 'R', "100");
  EXPECT_FALSE(detector_.observe());
  show("1", 'R', "101");
  EXPECT_FALSE(detector_.observe());
}

TEST_F(StarvationDetectorTest, ABlockedStoppedOrFrozenThreadIsNotReady) {
  for (const char state : {'S', 'D', 'T', 't', 'Z'}) {
    show("1", state, "100");
    EXPECT_FALSE(detector_.observe());
    EXPECT_FALSE(detector_.observe()) << state;
  }
}

TEST_F(StarvationDetectorTest, AThreadThatHasJustBecomeReadyIsNotStarved) {
  show("1", 'S', "100");
  EXPECT_FALSE(detector_.observe());
  show("1", 'R', "100");
  EXPECT_FALSE(detector_.observe());
}

TEST_F(StarvationDetectorTest, ForgetsWhatItHasSeen) {
  show("1", 'R', "100");
  EXPECT_FALSE(detector_.observe());
  detector_.forget();
  EXPECT_FALSE(detector_.observe());
}

// The beginnings of two numbers may be the same.
TEST_F(StarvationDetectorTest, ATruncatedNumberIsNotBelieved) {
  for (int count = 0; count < 3; ++count) {
    show("1", 'R', "100");
    std::ofstream(tasks_.path("1/schedstat")) << "100";
    EXPECT_FALSE(detector_.observe());
  }
}

TEST_F(StarvationDetectorTest, WithoutTheKernelsInformationNothingIsStarved) {
  show("1", 'R', "unknown");
  EXPECT_FALSE(detector_.observe());
  EXPECT_FALSE(detector_.observe());
  StarvationDetector ofNobody(tasks_.path("nobody"));
  EXPECT_FALSE(ofNobody.observe());
}

TEST_F(StarvationDetectorTest, ReadsWhatTheKernelShows) {
  // This thread runs while it observes.
  StarvationDetector own("/proc/self/task");
  EXPECT_FALSE(own.observe());
  EXPECT_FALSE(own.observe());
}

}  // namespace
}  // namespace ostravel::linuxplatform
