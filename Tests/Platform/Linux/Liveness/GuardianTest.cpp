#include "Platform/Linux/Liveness/Guardian.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <string_view>

#include "Base/FileDescriptor.h"
#include "Tests/Platform/Linux/Support/FailingCalls.h"
#include "Tests/Support/TestPipe.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Phase = HeartbeatRecord::Phase;

// Possible delay of anything on a busy machine.
constexpr auto kLateness = 30s;

// A process with a guardian, whose standard error is a pipe of the test.
class Guarded {
 public:
  // Runs work in the guarded process, which then exits with status 0.
  explicit Guarded(
      std::function<void(HeartbeatRecord&, Guardian&)> work, int lastFile = -1,
      const std::function<Guardian::CleanUp()>& prepare = [] { return [] {}; }) {
    process_ = ::fork();
    if (process_ == 0) {
      ::dup2(errors_.input(), STDERR_FILENO);
      errors_.closeInput();
      HeartbeatRecord record;
      if (auto guardian = Guardian::start(record, lastFile, prepare)) {
        work(record, *guardian);
        ::_exit(EXIT_SUCCESS);
      }
      ::_exit(EXIT_FAILURE);
    }
    errors_.closeInput();
  }
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;
  ~Guarded() {
    if (process_ > 0) {
      ::kill(process_, SIGKILL);
      ::waitpid(process_, nullptr, 0);
    }
  }

  pid_t process() const { return process_; }

  // Waits for it to end; returns its wait(2) status.
  int wait() {
    int status = -1;
    ::waitpid(std::exchange(process_, -1), &status, 0);
    return status;
  }

  // Reads standard error until the last process has closed it.
  std::string readErrors() const { return errors_.read(); }

 private:
  testing::TestPipe errors_;
  pid_t process_ = -1;
};

void hang() {
  while (true) {
    ::pause();
  }
}

bool isKilled(int status) {
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

TEST(GuardianTest, KillsAProcessWhoseHeartbeatStops) {
  const auto begin = Clock::now();
  Guarded guarded([](HeartbeatRecord& record, Guardian& /*guardian*/) {
    record.enter(Phase::running);
    hang();
  });
  EXPECT_TRUE(isKilled(guarded.wait()));
  EXPECT_EQ(guarded.readErrors(),
            "ostravel-extension: killed: no heartbeat for 1 s: the whole process made no "
            "progress\n");
  EXPECT_GE(Clock::now() - begin, Guardian::kRunLimit);
  EXPECT_LT(Clock::now() - begin, Guardian::kRunLimit + kLateness);
}

TEST(GuardianTest, NamesTheLaggingParticipants) {
  Guarded guarded([](HeartbeatRecord& record, Guardian& /*guardian*/) {
    record.enter(Phase::running);
    while (true) {
      record.noteCheck(eventLoopParticipant(1) | kWorkThreadsParticipant);
      ::poll(nullptr, 0, 10);
    }
  });
  EXPECT_TRUE(isKilled(guarded.wait()));
  EXPECT_EQ(guarded.readErrors(),
            "ostravel-extension: killed: no heartbeat for 1 s: event loop 1, the work threads made "
            "no progress\n");
}

TEST(GuardianTest, KillsAStoppedProcess) {
  Guarded guarded([](HeartbeatRecord& record, Guardian& /*guardian*/) {
    record.enter(Phase::running);
    ::raise(SIGSTOP);
  });
  EXPECT_TRUE(isKilled(guarded.wait()));
}

// A real-time process leaves nothing to others on its processor for longer than the limit.
TEST(GuardianTest, SparesAProcessThatGetsNoProcessorTime) {
  constexpr auto kStarving = 3s;
  const auto begin = Clock::now();
  Guarded guarded([kStarving](HeartbeatRecord& record, Guardian& /*guardian*/) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(::sched_getcpu(), &one);
    ::sched_setaffinity(0, sizeof one, &one);
    if (::fork() == 0) {
      sched_param parameters{.sched_priority = ::sched_get_priority_min(SCHED_FIFO)};
      if (::sched_setscheduler(0, SCHED_FIFO, &parameters) != 0) {
        ::_exit(EXIT_FAILURE);
      }
      const auto start = Clock::now();
      while (Clock::now() - start < kStarving) {
      }
      ::_exit(EXIT_SUCCESS);
    }
    record.enter(Phase::running);
    // Hangs, busily, once it runs. A loop without any effect could be removed by the compiler.
    for (std::atomic<unsigned> turns = 0;; ++turns) {
    }
  });
  EXPECT_TRUE(isKilled(guarded.wait()));
  EXPECT_GE(Clock::now() - begin, kStarving);
}

TEST(GuardianTest, AStalledShutdownHasALongerLimit) {
  const auto begin = Clock::now();
  Guarded guarded([](HeartbeatRecord& record, Guardian& /*guardian*/) {
    record.enter(Phase::stopping);
    hang();
  });
  EXPECT_TRUE(isKilled(guarded.wait()));
  EXPECT_EQ(guarded.readErrors(),
            "ostravel-extension: killed: no heartbeat for 2 s: the end made no progress\n");
  EXPECT_GE(Clock::now() - begin, Guardian::kStopLimit);
}

TEST(GuardianTest, SparesBeatingAndStartingProcesses) {
  Guarded guarded([](HeartbeatRecord& record, Guardian& /*guardian*/) {
    ::poll(nullptr, 0, 1500);
    record.enter(Phase::running);
    for (int i = 0; i < 15; ++i) {
      record.beat();
      ::poll(nullptr, 0, 100);
    }
  });
  EXPECT_EQ(guarded.wait(), 0);
  EXPECT_EQ(guarded.readErrors(), "");
}

TEST(GuardianTest, EndsWithTheProcess) {
  const auto begin = Clock::now();
  Guarded guarded([](HeartbeatRecord& record, Guardian& /*guardian*/) {
    record.enter(Phase::running);
    ::raise(SIGKILL);
  });
  EXPECT_TRUE(isKilled(guarded.wait()));
  // Reading ends only when the guardian has closed it too.
  EXPECT_EQ(guarded.readErrors(), "");
  EXPECT_LT(Clock::now() - begin, kLateness);
}

TEST(GuardianTest, KeepsTheLastFileUntilItsProcessHasEnded) {
  testing::TestPipe last;
  Guarded guarded(
      [&last](HeartbeatRecord& /*record*/, Guardian& guardian) {
        while (::getsid(guardian.process()) != guardian.process()) {
        }
        [[maybe_unused]] const auto written = ::write(last.input(), "-", 1);
        last.closeInput();
        hang();
      },
      last.input());
  last.closeInput();
  char byte = 0;
  ASSERT_EQ(::read(last.output(), &byte, 1), 1);
  pollfd end{last.output(), POLLIN, 0};
  EXPECT_EQ(::poll(&end, 1, 100), 0);
  ::kill(guarded.process(), SIGKILL);
  EXPECT_EQ(::read(last.output(), &byte, 1), 0);
}

void writeError(std::string_view text) {
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
}

Guardian::CleanUp cleanUpVisibly() {
  return [] { writeError("cleaned up\n"); };
}

TEST(GuardianTest, CleansUpAfterTheEnd) {
  constexpr int kNoFile = -1;
  Guarded guarded(
      [](HeartbeatRecord& /*record*/, Guardian& /*guardian*/) { writeError("running\n"); }, kNoFile,
      cleanUpVisibly);
  EXPECT_EQ(guarded.wait(), 0);
  EXPECT_EQ(guarded.readErrors(), "running\ncleaned up\n");
}

int countFiles() {
  constexpr int kMore = 16;
  int count = 0;
  for (int descriptor = 0; descriptor < kMore; ++descriptor) {
    count += ::fcntl(descriptor, F_GETFD) >= 0 ? 1 : 0;
  }
  return count;
}

TEST(GuardianTest, ClosesTheLastFileBeforeItCleansUp) {
  testing::TestPipe last;
  const auto prepare = [] {
    return [before = countFiles()] {
      writeError(std::to_string(before - countFiles()) + " closed\n");
    };
  };
  Guarded guarded([](HeartbeatRecord& /*record*/, Guardian& /*guardian*/) {}, last.input(),
                  prepare);
  EXPECT_EQ(guarded.wait(), 0);
  EXPECT_EQ(guarded.readErrors(), "1 closed\n");
}

TEST(GuardianTest, CleansUpAfterItsKill) {
  constexpr int kNoFile = -1;
  Guarded guarded(
      [](HeartbeatRecord& record, Guardian& /*guardian*/) {
        record.enter(Phase::running);
        hang();
      },
      kNoFile, cleanUpVisibly);
  EXPECT_TRUE(isKilled(guarded.wait()));
  EXPECT_TRUE(guarded.readErrors().ends_with("made no progress\ncleaned up\n"));
}

TEST(GuardianTest, EndsWithoutCleaningUpIfMemoryIsShort) {
  constexpr int kNoFile = -1;
  Guarded guarded([](HeartbeatRecord& /*record*/, Guardian& /*guardian*/) {}, kNoFile,
                  [] { return [] { throw std::bad_alloc(); }; });
  EXPECT_EQ(guarded.wait(), 0);
  EXPECT_EQ(guarded.readErrors(), "");
}

TEST(GuardianTest, ItsEndIsReportedOnce) {
  Guarded guarded([](HeartbeatRecord& /*record*/, Guardian& guardian) {
    const pid_t process = guardian.process();
    if (guardian.hasEnded()) {
      ::_exit(1);
    }
    ::kill(process, SIGKILL);
    siginfo_t information{};
    ::waitid(P_PID, static_cast<id_t>(process), &information, WEXITED | WNOWAIT);
    if (!guardian.hasEnded() || guardian.hasEnded()) {
      ::_exit(2);
    }
  });
  EXPECT_EQ(guarded.wait(), 0);
}

TEST(GuardianTest, AStalledReaderDoesNotDelayTheKill) {
  const auto begin = Clock::now();
  Guarded guarded([](HeartbeatRecord& record, Guardian& /*guardian*/) {
    ::fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
    const std::array<char, 4096> text{};
    while (::write(STDERR_FILENO, text.data(), text.size()) > 0) {
    }
    ::fcntl(STDERR_FILENO, F_SETFL, 0);
    record.enter(Phase::running);
    hang();
  });
  EXPECT_TRUE(isKilled(guarded.wait()));
  EXPECT_LT(Clock::now() - begin, Guardian::kRunLimit + kLateness);
}

TEST(GuardianTest, IgnoresTerminationSignals) {
  Guarded guarded([](HeartbeatRecord& record, Guardian& guardian) {
    record.enter(Phase::running);
    // Its setup is complete when it is in a separate session.
    while (::getsid(guardian.process()) != guardian.process()) {
    }
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP}) {
      ::kill(guardian.process(), signal);
    }
    hang();
  });
  EXPECT_TRUE(isKilled(guarded.wait()));
}

TEST(GuardianTest, SaysWhyThereIsNone) {
  const HeartbeatRecord record;
  testing::withFailingCalls({SYS_pidfd_open}, ENOSYS, [&record] {
    const auto guardian = Guardian::start(record);
    ASSERT_FALSE(guardian);
    EXPECT_EQ(guardian.error().code, ENOSYS);
  });
  testing::withFailingCalls({SYS_clone}, EAGAIN, [&record] {
    const auto guardian = Guardian::start(record);
    ASSERT_FALSE(guardian);
    EXPECT_EQ(guardian.error().code, EAGAIN);
  });
}

}  // namespace
}  // namespace ostravel::linuxplatform
