#include "Platform/Linux/Processes/ProcessLife.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Tests/Platform/Linux/Support/Helper.h"

namespace ostravel::linuxplatform {
namespace {

std::uint64_t startTimeOf(pid_t pid) {
  return LocalProcessTable().stampOf(pid)->startTime;
}

TEST(ProcessLifeTest, ARunningProcessHasNotEnded) {
  EXPECT_FALSE(ProcessLife(::getpid(), startTimeOf(::getpid())).hasEnded());
}

TEST(ProcessLifeTest, AStoppedProcessHasNotEnded) {
  const testing::Helper helper;
  const ProcessLife life(helper.pid(), startTimeOf(helper.pid()));
  ::kill(helper.pid(), SIGSTOP);
  EXPECT_FALSE(life.hasEnded());
}

TEST(ProcessLifeTest, AProcessWithALineBreakInItsNameHasNotEnded) {
  std::array<char, 16> name{};
  ASSERT_EQ(::prctl(PR_GET_NAME, name.data()), 0);
  ASSERT_EQ(::prctl(PR_SET_NAME, "a) Z\n1 (b"), 0);
  const auto stamp = LocalProcessTable().stampOf(::getpid());
  ASSERT_TRUE(stamp);
  EXPECT_FALSE(ProcessLife(::getpid(), stamp->startTime).hasEnded());
  ::prctl(PR_SET_NAME, name.data());
}

TEST(ProcessLifeTest, AReapedProcessHasEnded) {
  testing::Helper helper;
  const ProcessLife life(helper.pid(), startTimeOf(helper.pid()));
  helper.kill();
  EXPECT_TRUE(life.hasEnded());
}

TEST(ProcessLifeTest, AZombieHasEnded) {
  const testing::Helper helper;
  const ProcessLife life(helper.pid(), startTimeOf(helper.pid()));
  ::kill(helper.pid(), SIGKILL);
  siginfo_t status{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(helper.pid()), &status, WEXITED | WNOWAIT), 0);
  EXPECT_TRUE(life.hasEnded());
}

TEST(ProcessLifeTest, ALaterProcessWithItsNumberIsDifferent) {
  EXPECT_TRUE(ProcessLife(::getpid(), startTimeOf(::getpid()) - 1).hasEnded());
}

}  // namespace
}  // namespace ostravel::linuxplatform
