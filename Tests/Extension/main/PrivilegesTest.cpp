#include "Extension/main/Privileges.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <initializer_list>
#include <string>

#include "Tests/Support/InChildProcess.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

std::uint64_t maskOf(std::initializer_list<unsigned> capabilities) {
  std::uint64_t mask = 0;
  for (const unsigned capability : capabilities) {
    mask |= std::uint64_t{1} << capability;
  }
  return mask;
}

std::string obstacleWith(std::initializer_list<unsigned> capabilities, bool seesProcesses = false) {
  const auto obstacle = Privileges(maskOf(capabilities), seesProcesses).obstacle();
  return obstacle ? obstacle->localizedDescription : "";
}

TEST(Privileges, RootHasThem) {
  EXPECT_FALSE(Privileges::ofThisProcess().obstacle());
}

TEST(Privileges, AnOrdinaryUserLacksThem) {
  testing::asOrdinaryUser([] {
    const auto missing = Privileges::ofThisProcess().obstacle();
    ASSERT_TRUE(missing);
    EXPECT_NE(missing->localizedDescription.find("CAP_NET_ADMIN"), std::string::npos);
  });
}

TEST(Privileges, UnusedOnesAreDroppedForGood) {
  testing::inChildProcess([] {
    ASSERT_FALSE(Privileges::giveUpUnused(Privileges::Inspection::own));
    const auto privileges = Privileges::ofThisProcess();
    EXPECT_FALSE(privileges.obstacle());
    for (const int capability : {CAP_SYS_MODULE, CAP_SETUID, CAP_SYS_RAWIO, CAP_NET_RAW}) {
      EXPECT_EQ(::prctl(PR_CAPBSET_READ, capability), 0) << capability;
    }
    EXPECT_EQ(::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0), 1);
    // It needs CAP_CHOWN.
    const testing::TemporaryFolder folder;
    EXPECT_EQ(::chown(folder.write("file", "").c_str(), 1, 1), -1);
  });
}

TEST(Privileges, NothingIsMissingWithTheSevenThatAreUsed) {
  const Privileges privileges(maskOf({CAP_NET_ADMIN, CAP_NET_RAW, CAP_SYS_PTRACE,
                                      CAP_DAC_READ_SEARCH, CAP_BPF, CAP_PERFMON, CAP_SYS_NICE}),
                              false);
  EXPECT_FALSE(privileges.obstacle());
  EXPECT_TRUE(privileges.losses().empty());
}

TEST(Privileges, APreferredProcessNeedsNoRealTimePriority) {
  const std::uint64_t capabilities = maskOf(
      {CAP_NET_ADMIN, CAP_NET_RAW, CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH, CAP_BPF, CAP_PERFMON});
  EXPECT_EQ(Privileges(capabilities, false, false).losses().size(), 1U);
  EXPECT_TRUE(Privileges(capabilities, false, true).losses().empty());
}

TEST(Privileges, StrongerCapabilitiesReplaceWeakerOnes) {
  const Privileges privileges(maskOf({CAP_NET_ADMIN, CAP_NET_RAW, CAP_SYS_PTRACE, CAP_DAC_OVERRIDE,
                                      CAP_SYS_ADMIN, CAP_SYS_NICE}),
                              false);
  EXPECT_FALSE(privileges.obstacle());
  EXPECT_TRUE(privileges.losses().empty());
}

TEST(Privileges, NothingWorksWithoutTheNetwork) {
  EXPECT_EQ(obstacleWith({CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH}),
            "the permission to administer the network (CAP_NET_ADMIN) is missing: run as root");
}

TEST(Privileges, WithoutVisibleProcessesEverythingWouldGoDirect) {
  const std::string after =
      ") is missing, without which no local proxy can be recognised and every connection would go "
      "direct: run as root";
  EXPECT_EQ(
      obstacleWith({CAP_NET_ADMIN}),
      "the permission to look at other processes (CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH" + after);
  EXPECT_EQ(obstacleWith({CAP_NET_ADMIN, CAP_SYS_PTRACE}),
            "the permission to look at other processes (CAP_DAC_READ_SEARCH" + after);
  EXPECT_EQ(obstacleWith({CAP_NET_ADMIN, CAP_DAC_READ_SEARCH}),
            "the permission to look at other processes (CAP_SYS_PTRACE" + after);
}

TEST(Privileges, WhereAllProcessesAreVisibleItWorksWithLosses) {
  EXPECT_EQ(obstacleWith({CAP_NET_ADMIN}, true), "");
  EXPECT_EQ(Privileges(maskOf({CAP_NET_ADMIN}), true).losses().size(), 5U);
}

TEST(Privileges, TracingNeedsBothOfItsCapabilities) {
  for (const unsigned one : std::initializer_list<unsigned>{CAP_BPF, CAP_PERFMON}) {
    const auto losses = Privileges(maskOf({CAP_NET_ADMIN, CAP_NET_RAW, CAP_SYS_PTRACE,
                                           CAP_DAC_READ_SEARCH, CAP_SYS_NICE, one}),
                                   true)
                            .losses();
    ASSERT_EQ(losses.size(), 1U);
    EXPECT_TRUE(losses[0].starts_with("CAP_BPF or CAP_PERFMON is missing: ")) << losses[0];
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform
