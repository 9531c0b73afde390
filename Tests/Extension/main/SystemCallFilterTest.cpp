#include "Extension/main/SystemCallFilter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <thread>

namespace ostravel::linuxplatform {
namespace {

// How a child that has installed the filter ends: the status of _exit(2), or 128 and the signal.
int endOf(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(SystemCallFilter::install() ? 99 : body());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(SystemCallFilter, PermitsThreadsFilesAndSockets) {
  EXPECT_EQ(endOf([] {
              bool isOpen = false;
              std::thread([&isOpen] {
                isOpen = ::open("/proc/self/status", O_RDONLY | O_CLOEXEC) >= 0;
              }).join();
              const bool hasSocket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0) >= 0;
              return isOpen && hasSocket ? 0 : 1;
            }),
            0);
}

TEST(SystemCallFilter, PermitsNoOtherProcess) {
  EXPECT_EQ(endOf([] { return ::fork() < 0 ? errno : 0; }), ENOSYS);
}

TEST(SystemCallFilter, EndsWhatRunsAProgram) {
  EXPECT_EQ(endOf([] {
              ::execl("/bin/true", "true", nullptr);
              return 1;
            }),
            128 + SIGSYS);
}

TEST(SystemCallFilter, EndsWhatReachesForOthers) {
  for (const std::function<long()>& attempt :
       {std::function<long()>([] { return ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }),
        std::function<long()>([] { return ::mount("", "/", nullptr, MS_BIND, nullptr); }),
        std::function<long()>([] { return ::unshare(CLONE_NEWNS); }),
        std::function<long()>([] { return ::syscall(SYS_init_module, nullptr, 0, ""); })}) {
    EXPECT_EQ(endOf([&attempt] {
                attempt();
                return 1;
              }),
              128 + SIGSYS);
  }
}

TEST(SystemCallFilter, AnswersTheUnknownAsAnOldKernelDoes) {
  EXPECT_EQ(endOf([] {
              constexpr long kNoSuchCall = 0x7ff0;
              return ::syscall(kNoSuchCall) == -1 ? errno : 0;
            }),
            ENOSYS);
  EXPECT_EQ(endOf([] { return ::setuid(1) == -1 ? errno : 0; }), ENOSYS);
}

TEST(SystemCallFilter, HoldsInThreadsThatExistAlready) {
  const pid_t child = ::fork();
  if (child == 0) {
    std::atomic<bool> isInstalled = false;
    std::thread other([&isInstalled] {
      isInstalled.wait(false);
      ::_exit(::setuid(1) == -1 && errno == ENOSYS ? 0 : 1);
    });
    if (SystemCallFilter::install()) {
      ::_exit(99);
    }
    isInstalled = true;
    isInstalled.notify_one();
    other.join();
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace ostravel::linuxplatform
