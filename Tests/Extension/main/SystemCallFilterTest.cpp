#include "Extension/main/SystemCallFilter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <thread>

#include "Platform/Linux/Kernel/ConntrackEntries.h"

namespace ostravel::linuxplatform {
namespace {

using Install = platform::OptionalError (*)();

// How a child that has installed the filter ends: the status of _exit(2), or 128 and the signal.
int endOf(const std::function<int()>& body, Install install = SystemCallFilter::install) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(install() ? 99 : body());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The same for a thread that carries connections.
int endOfRelay(const std::function<int()>& body,
               Install restrict = SystemCallFilter::restrictRelay) {
  return endOf([&body, restrict] {
    int result = 0;
    std::thread([&result, &body, restrict] { result = restrict() ? 99 : body(); }).join();
    return result;
  });
}

// The error of a call that has failed; 0 if it has not.
int errorOf(long result) {
  return result == -1 ? errno : 0;
}

int listenSomewhere() {
  return ::listen(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), 1) == 0 ? 0 : 1;
}

int runProgram() {
  ::execl("/bin/true", "true", nullptr);
  return 1;
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
  EXPECT_EQ(endOf([] { return errorOf(::fork()); }), ENOSYS);
}

TEST(SystemCallFilter, KillsAProcessThatRunsAProgram) {
  EXPECT_EQ(endOf(runProgram), 128 + SIGSYS);
}

TEST(SystemCallFilter, KillsAProcessThatAccessesOthers) {
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

TEST(SystemCallFilter, AnswersUnknownCallsAsAnOldKernelDoes) {
  EXPECT_EQ(endOf([] {
              constexpr long kNoSuchCall = 0x7ff0;
              return errorOf(::syscall(kNoSuchCall));
            }),
            ENOSYS);
  EXPECT_EQ(endOf([] { return errorOf(::setuid(1)); }), ENOSYS);
}

TEST(SystemCallFilter, OpensFilesForReadingOnly) {
  for (const int flags : {O_WRONLY, O_RDWR, O_RDONLY | O_CREAT, O_RDONLY | O_TRUNC}) {
    EXPECT_EQ(endOf([flags] { return errorOf(::open("/dev/null", flags, 0600)); }), ENOSYS);
    EXPECT_EQ(endOf([flags] {
                return errorOf(::syscall(SYS_openat, AT_FDCWD, "/dev/null", flags, 0600));
              }),
              ENOSYS);
  }
  for (const int flags : {O_RDONLY | O_CLOEXEC | O_NONBLOCK, O_PATH | O_NOFOLLOW}) {
    EXPECT_EQ(endOf([flags] { return errorOf(::open("/dev/null", flags)); }), 0);
  }
}

TEST(SystemCallFilter, ChangesNoFile) {
  EXPECT_EQ(endOf([] { return errorOf(::chmod("/nowhere", 0)); }), ENOSYS);
  EXPECT_EQ(endOf([] { return errorOf(::rename("/nowhere", "/elsewhere")); }), ENOSYS);
  EXPECT_EQ(endOf([] { return errorOf(::mkdir("/nowhere/here", 0)); }), ENOSYS);
}

TEST(SystemCallFilter, KillsARelayThatListensOrRunsAProgram) {
  EXPECT_EQ(endOfRelay(listenSomewhere), 128 + SIGSYS);
  EXPECT_EQ(endOfRelay(runProgram), 128 + SIGSYS);
}

TEST(SystemCallFilter, ARelayRemovesNoNameAndWritesNoFile) {
  EXPECT_EQ(endOfRelay([] { return errorOf(::unlink("/nowhere")); }), ENOSYS);
  EXPECT_EQ(endOfRelay([] { return errorOf(::open("/dev/null", O_WRONLY)); }), ENOSYS);
}

TEST(SystemCallFilter, PermitsWhatARelayDoes) {
  EXPECT_EQ(endOfRelay([] {
              std::array<int, 2> sockets{};
              std::array<int, 2> pipe{};
              constexpr int kType = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
              const bool isReady = ::socketpair(AF_UNIX, kType, 0, sockets.data()) == 0 &&
                                   ::pipe2(pipe.data(), O_CLOEXEC | O_NONBLOCK) == 0 &&
                                   ::send(sockets[0], "x", 1, MSG_NOSIGNAL) == 1;
              const auto moved = ::splice(sockets[1], nullptr, pipe[1], nullptr, 1, 0);
              return isReady && moved == 1 ? 0 : 1;
            }),
            0);
}

TEST(SystemCallFilter, ARelayOpensAFileOnlyIfItInspectsProcesses) {
  const auto openFile = [] { return errorOf(::open("/proc/self/stat", O_RDONLY | O_CLOEXEC)); };
  EXPECT_EQ(endOfRelay(openFile), ENOSYS);
  EXPECT_EQ(endOfRelay(openFile, SystemCallFilter::restrictInspectingRelay), 0);
  const auto readLink = [] {
    std::array<char, 64> target{};
    return errorOf(::readlink("/proc/self/exe", target.data(), target.size()));
  };
  EXPECT_EQ(endOfRelay(readLink), ENOSYS);
}

TEST(SystemCallFilter, AnInspectingRelayDoesNotListen) {
  EXPECT_EQ(endOfRelay(listenSomewhere, SystemCallFilter::restrictInspectingRelay), 128 + SIGSYS);
}

TEST(SystemCallFilter, TheInspectorReadsFilesAndHasThreads) {
  EXPECT_EQ(endOf(
                [] {
                  // Not std::thread: before its virtual call UndefinedBehaviorSanitizer makes
                  // others.
                  constexpr auto openStat = [](void* file) -> void* {
                    *static_cast<int*>(file) = ::open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
                    return nullptr;
                  };
                  int file = -1;
                  pthread_t thread{};
                  ::pthread_create(&thread, nullptr, openStat, &file);
                  ::pthread_join(thread, nullptr);
                  // To report to the service manager.
                  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
                  return file >= 0 && socket >= 0 ? 0 : 1;
                },
                SystemCallFilter::restrictInspector),
            0);
}

TEST(SystemCallFilter, TheInspectorHasNoNetworkAndChangesNothing) {
  const auto attempt = [](const std::function<int()>& body) {
    return endOf(body, SystemCallFilter::restrictInspector);
  };
  EXPECT_EQ(attempt([] { return errorOf(::socket(AF_INET, SOCK_STREAM, 0)); }), ENOSYS);
  EXPECT_EQ(attempt([] { return errorOf(::open("/dev/null", O_WRONLY)); }), ENOSYS);
  EXPECT_EQ(attempt([] { return errorOf(::kill(::getpid(), 0)); }), ENOSYS);
  EXPECT_EQ(attempt([] { return errorOf(::unlink("/nowhere")); }), ENOSYS);
  EXPECT_EQ(attempt(runProgram), 128 + SIGSYS);
  EXPECT_EQ(attempt([] { return errorOf(::ptrace(PTRACE_TRACEME)); }), 128 + SIGSYS);
}

TEST(SystemCallFilter, OtherThreadsListenAfterARelayIsRestricted) {
  EXPECT_EQ(endOf([] {
              std::thread([] { static_cast<void>(SystemCallFilter::restrictRelay()); }).join();
              return listenSomewhere();
            }),
            0);
}

TEST(SystemCallFilter, TheGuardianWatchesAndKills) {
  EXPECT_EQ(endOf(
                [] {
                  const bool canLook = ::open("/proc/self/stat", O_RDONLY | O_CLOEXEC) >= 0;
                  // There is no such descriptor; the kernel says so, not the filter.
                  const auto kill = ::syscall(SYS_pidfd_send_signal, -1, SIGKILL, nullptr, 0);
                  return canLook && errorOf(kill) == EBADF ? 0 : 1;
                },
                SystemCallFilter::restrictGuardian),
            0);
}

TEST(SystemCallFilter, TheGuardianAsksTheKernelForTrackedConnections) {
  EXPECT_EQ(
      endOf([] { return ConntrackEntries().usage() ? 0 : 1; }, SystemCallFilter::restrictGuardian),
      0);
}

TEST(SystemCallFilter, TheGuardianDoesNothingElse) {
  const auto attempt = [](const std::function<int()>& body) {
    return endOf(body, SystemCallFilter::restrictGuardian);
  };
  EXPECT_EQ(attempt([] { return errorOf(::socket(AF_INET, SOCK_STREAM, 0)); }), ENOSYS);
  EXPECT_EQ(attempt([] { return errorOf(::open("/dev/null", O_WRONLY)); }), ENOSYS);
  EXPECT_EQ(attempt([] { return errorOf(::kill(::getpid(), 0)); }), ENOSYS);
  EXPECT_EQ(attempt([] { return errorOf(::fork()); }), ENOSYS);
  EXPECT_EQ(attempt(runProgram), 128 + SIGSYS);
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
