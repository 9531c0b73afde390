#include "Platform/Linux/Processes/LocalProcessTable.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "Platform/Linux/Kernel/CgroupRoot.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/PrivateMounts.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

class LocalProcessTableTest : public ::testing::Test {
 protected:
  // On a busy machine the file system may answer late.
  std::optional<Process> findSettled(pid_t pid) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    auto process = processes_.find(pid);
    while (process && !process->isExecutableSettled &&
           std::chrono::steady_clock::now() < deadline) {
      process = processes_.find(pid);
    }
    return process;
  }

  LocalProcessTable processes_;
  const TemporaryFolder folder_;
};

TEST_F(LocalProcessTableTest, DescribesThisProcess) {
  const auto process = findSettled(::getpid());
  ASSERT_TRUE(process);
  EXPECT_EQ(process->pid, ::getpid());
  EXPECT_EQ(process->stamp.uid, ::geteuid());
  EXPECT_EQ(process->executable, std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_TRUE(process->isExecutableGenuine);
  EXPECT_EQ(process->stamp, processes_.stampOf(::getpid()));
}

TEST_F(LocalProcessTableTest, ReportsTheUserAndTheExecutable) {
  const std::string program = copyHelper(folder_, "program");
  Helper helper(program);
  ASSERT_EQ(helper.ask("user 65534"), "done");
  const auto process = findSettled(helper.pid());
  ASSERT_TRUE(process);
  EXPECT_EQ(process->stamp.uid, 65534U);
  EXPECT_EQ(process->executable, program);
}

TEST_F(LocalProcessTableTest, ARemovedProgramKeepsItsPathButIsNotGenuine) {
  const std::string program = copyHelper(folder_, "program");
  Helper helper(program);
  auto process = findSettled(helper.pid());
  ASSERT_TRUE(process);
  EXPECT_FALSE(processes_.refreshExecutable(*process));
  const auto file = process->executableFile;
  ASSERT_TRUE(file);
  std::filesystem::remove(program);
  do {
    EXPECT_TRUE(processes_.refreshExecutable(*process));
  } while (!process->isExecutableSettled);
  EXPECT_EQ(process->executable, program);
  EXPECT_EQ(process->executableFile, file);
  EXPECT_FALSE(process->isExecutableGenuine);
  EXPECT_TRUE(process->isExecutableDeleted);
  EXPECT_FALSE(processes_.refreshExecutable(*process));
}

TEST_F(LocalProcessTableTest, APathMayEndInDeleted) {
  const std::string program = copyHelper(folder_, "program (deleted)");
  Helper helper(program);
  const auto process = findSettled(helper.pid());
  ASSERT_TRUE(process);
  EXPECT_EQ(process->executable, program);
  EXPECT_TRUE(process->isExecutableGenuine);
  EXPECT_FALSE(process->isExecutableDeleted);
}

TEST_F(LocalProcessTableTest, APathMayContainAnyBytes) {
  Helper helper(copyHelper(folder_, "pro\xffgram"));
  const auto process = findSettled(helper.pid());
  ASSERT_TRUE(process);
  EXPECT_EQ(process->executable, folder_.path("pro\xffgram"));
  EXPECT_TRUE(process->isExecutableGenuine);
}

TEST_F(LocalProcessTableTest, ReportsWhoStartedAProgramOfAnotherUser) {
  const std::string program = copyHelper(folder_, "program");
  ASSERT_EQ(::chmod(program.c_str(), 04755), 0);
  Helper helper(program, [] { return ::setgid(65534) == 0 && ::setuid(65534) == 0; });
  const auto stamp = processes_.stampOf(helper.pid());
  ASSERT_TRUE(stamp);
  EXPECT_EQ(stamp->uid, 0U);
  EXPECT_EQ(stamp->realUser, 65534U);
}

TEST_F(LocalProcessTableTest, ReportsNothingAboutAnEndedProcess) {
  Helper helper;
  const pid_t pid = helper.pid();
  helper.kill();
  EXPECT_FALSE(processes_.find(pid));
  EXPECT_FALSE(processes_.stampOf(pid));
}

TEST_F(LocalProcessTableTest, AZombieHasNoExecutable) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::_exit(0);
  }
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
  const auto process = processes_.find(child);
  ASSERT_TRUE(process);
  EXPECT_EQ(process->executable, "");
  EXPECT_EQ(::waitpid(child, nullptr, 0), child);
}

TEST_F(LocalProcessTableTest, StampsDifferByProgramAndByProcess) {
  Helper helper;
  const auto before = processes_.stampOf(helper.pid());
  ASSERT_TRUE(before);
  EXPECT_EQ(processes_.stampOf(helper.pid()), before);
  // Stack addresses are random, and a few may be equal.
  bool isDifferent = false;
  for (int i = 0; i < 20 && !isDifferent; ++i) {
    ASSERT_EQ(helper.ask("run " OSTRAVEL_HELPER), "ready");
    isDifferent = processes_.stampOf(helper.pid()) != before;
  }
  EXPECT_TRUE(isDifferent);
  const auto now = processes_.stampOf(helper.pid());
  EXPECT_EQ(now->startTime, before->startTime);
  Helper other;
  EXPECT_NE(processes_.stampOf(other.pid()), now);
}

TEST_F(LocalProcessTableTest, AMisleadingProgramNameIsParsedCorrectly) {
  Helper helper(copyHelper(folder_, "a) R 1 (b"));
  Helper plain;
  const auto odd = processes_.stampOf(helper.pid());
  const auto reference = processes_.stampOf(plain.pid());
  ASSERT_TRUE(odd && reference);
  EXPECT_LE(odd->startTime, reference->startTime);
  EXPECT_GT(odd->startTime + 60 * static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK)),
            reference->startTime);
  EXPECT_GT(odd->stackStart, 4096U);
}

// In its own mount namespace, program is covered by cover.
std::function<bool()> covering(const std::string& program, const std::string& cover) {
  return [program, cover] {
    return enterPrivateMounts() && (cover.empty() || ::mount(cover.c_str(), program.c_str(),
                                                             nullptr, MS_BIND, nullptr) == 0);
  };
}

TEST_F(LocalProcessTableTest, AProgramMountedOverAnotherIsNotGenuine) {
  const std::string program = copyHelper(folder_, "program");
  const std::string cover = copyHelper(folder_, "cover");
  Helper helper(program, covering(program, cover));
  const auto process = findSettled(helper.pid());
  ASSERT_TRUE(process);
  EXPECT_EQ(process->executable, program);
  EXPECT_FALSE(process->isExecutableGenuine);
}

TEST_F(LocalProcessTableTest, AProgramInAnotherMountNamespaceIsGenuine) {
  const std::string program = copyHelper(folder_, "program");
  Helper helper(program, covering(program, ""));
  const auto process = findSettled(helper.pid());
  ASSERT_TRUE(process);
  EXPECT_EQ(process->executable, program);
  EXPECT_TRUE(process->isExecutableGenuine);
}

TEST_F(LocalProcessTableTest, ReportsTheServicesControlGroup) {
  const auto root = findCgroupRoot("/proc/self/mounts");
  ASSERT_TRUE(root);
  const std::string name = "/ostravel-test-" + std::to_string(::getpid()) + ".service";
  const std::string group = *root + name;
  ASSERT_TRUE(std::filesystem::create_directories(group + "/inner"));
  {
    Helper helper;
    std::ofstream(group + "/inner/cgroup.procs") << helper.pid();
    const auto process = findSettled(helper.pid());
    ASSERT_TRUE(process);
    EXPECT_EQ(process->serviceGroup, name);
  }
  EXPECT_EQ(::rmdir((group + "/inner").c_str()), 0);
  EXPECT_EQ(::rmdir(group.c_str()), 0);
}

TEST(ServiceGroupTest, IsTheInnermostService) {
  EXPECT_EQ(serviceGroupOf("/system.slice/proxy.service"), "/system.slice/proxy.service");
  EXPECT_EQ(serviceGroupOf("/system.slice/proxy.service/worker/1"), "/system.slice/proxy.service");
  EXPECT_EQ(serviceGroupOf("/user.slice/user-1.slice/user@1.service/app.slice/proxy.service"),
            "/user.slice/user-1.slice/user@1.service/app.slice/proxy.service");
  EXPECT_EQ(serviceGroupOf("/system.slice/system-proxy.slice/proxy@1.service"),
            "/system.slice/system-proxy.slice/proxy@1.service");
}

TEST(ServiceGroupTest, IsEmptyOutsideOfServices) {
  for (const char* const group :
       {"", "/", "/init.scope", "/user.slice/user-1.slice/session-2.scope",
        "/user.slice/user-1.slice/user@1.service/app.slice/app-x.scope",
        "/user.slice/user-1.slice/user@1.service/init.scope",
        "/user.slice/user-1.slice/user@1.service", "/user.slice/user-1.slice/user@1.service/deep",
        "/system.slice/docker-1.scope", "/system.slice"}) {
    EXPECT_EQ(serviceGroupOf(group), "") << group;
  }
}

// On a busy machine the time limit may expire before the holder is scanned.
std::optional<pid_t> holderEventually(LocalProcessTable& processes, std::uint32_t inode,
                                      uid_t user) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  std::optional<pid_t> holder;
  while (!holder && std::chrono::steady_clock::now() < deadline) {
    holder = processes.holderOf(inode, user);
  }
  return holder;
}

// More descriptors than can be scanned in time, in processes newer than all others.
class Crowd {
 public:
  Crowd() {
    for (Helper* const helper : {&one_, &two_, &three_}) {
      EXPECT_EQ(helper->ask("hold 15000"), "done");
    }
  }

 private:
  Helper one_;
  Helper two_;
  Helper three_;
};

TEST_F(LocalProcessTableTest, FindsTheHolderOfASocket) {
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  EXPECT_EQ(holderEventually(processes_, inodeOf(socket), ::getuid()), ::getpid());
  EXPECT_FALSE(processes_.holderOf(0, ::getuid()));
}

TEST_F(LocalProcessTableTest, LimitsTheSearchForAHolder) {
  makeProcessNumbersRise();
  auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  const auto inode = inodeOf(socket);
  Helper holder(OSTRAVEL_HELPER, [&socket] { return ::dup(socket.get()) >= 0; });
  socket = FileDescriptor();
  {
    const Crowd crowd;
    EXPECT_FALSE(processes_.holderOf(inode, ::getuid()));
  }
  EXPECT_EQ(holderEventually(processes_, inode, ::getuid()), holder.pid());
}

TEST_F(LocalProcessTableTest, ChecksRecentHoldersFirst) {
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_EQ(holderEventually(processes_, inodeOf(socket), ::getuid()), ::getpid());
  const Crowd crowd;
  const auto other = makeSocket(AF_INET, SOCK_DGRAM);
  EXPECT_EQ(holderEventually(processes_, inodeOf(other), ::getuid()), ::getpid());
}

TEST_F(LocalProcessTableTest, RecognisesInheritedDescriptors) {
  const auto socket = makeSocket(AF_INET, SOCK_STREAM);
  Helper with(OSTRAVEL_HELPER, [&socket] { return ::dup2(socket.get(), 3) == 3; });
  Helper without;
  EXPECT_EQ(processes_.hasInherited(with.pid(), inodeOf(socket)), true);
  EXPECT_EQ(processes_.hasInherited(without.pid(), inodeOf(socket)), false);
  with.kill();
  EXPECT_EQ(processes_.hasInherited(with.pid(), inodeOf(socket)), false);
}

TEST_F(LocalProcessTableTest, CopesWithProcessesThatComeAndGo) {
  std::atomic<bool> ends = false;
  std::atomic<pid_t> latest = ::getpid();
  std::thread spawner([&] {
    while (!ends) {
      const pid_t child = ::fork();
      if (child == 0) {
        ::_exit(0);
      }
      latest = child;
      ::waitpid(child, nullptr, 0);
    }
  });
  int found = 0;
  for (int i = 0; i < 2000; ++i) {
    const pid_t pid = latest;
    const auto process = processes_.find(pid);
    if (process) {
      ++found;
      EXPECT_EQ(process->pid, pid);
      EXPECT_GT(process->stamp.startTime, 0U);
    }
  }
  EXPECT_TRUE(processes_.find(::getpid()));
  ends = true;
  spawner.join();
}

}  // namespace
}  // namespace ostravel::linuxplatform
