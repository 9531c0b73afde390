#include "Platform/Linux/Liveness/CrashHandler.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

#include "Base/LineOutput.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Tests/Support/TestPipe.h"

namespace ostravel::linuxplatform {
namespace {

constexpr int kLines = 1000;

// Nothing that a sanitizer notices before the processor does.
void fault() {
  *static_cast<volatile char*>(::mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) =
      1;
}

// A child process that logs to a pipe and crashes.
class CrashHandlerTest : public ::testing::Test {
 protected:
  template <typename Crash>
  void start(Crash crash) {
    child_ = ::fork();
    if (child_ == 0) {
      ::dup2(pipe_.input(), STDERR_FILENO);
      pipe_.closeOutput();
      // A sanitizer's handlers would report the crash and exit.
      for (const int signal : {SIGSEGV, SIGBUS, SIGABRT}) {
        std::signal(signal, SIG_DFL);
      }
      auto& platform = *new LinuxPlatform({});
      platform.writeLogOnCrash();
      for (int line = 0; line < kLines; ++line) {
        platform.defaultLog().info("OstravelProxy: line %{public}d", {std::int64_t{line}});
      }
      crash();
      ::_exit(0);
    }
  }

  std::string readToEnd() {
    pipe_.closeInput();
    return pipe_.read();
  }

  // The signal that ended the child.
  int signalOfEnd() const {
    int status = 0;
    EXPECT_EQ(::waitpid(child_, &status, 0), child_);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }

  static void expectAllLines(const std::string& text) {
    std::size_t at = 0;
    for (int line = 0; line < kLines; ++line) {
      const std::size_t end = text.find('\n', at);
      ASSERT_NE(end, std::string::npos) << line;
      ASSERT_TRUE(text.substr(at, end - at).ends_with(" line " + std::to_string(line))) << line;
      at = end + 1;
    }
  }

  testing::TestPipe pipe_;
  pid_t child_ = -1;
};

TEST_F(CrashHandlerTest, LinesBeforeAnAbortAreWritten) {
  start([] { std::abort(); });
  expectAllLines(readToEnd());
  EXPECT_EQ(signalOfEnd(), SIGABRT);
}

TEST_F(CrashHandlerTest, LinesBeforeAFaultAreWritten) {
  start(fault);
  expectAllLines(readToEnd());
  EXPECT_EQ(signalOfEnd(), SIGSEGV);
}

TEST_F(CrashHandlerTest, LinesBeforeASignalFromAnotherProcessAreWritten) {
  start([] {
    ::kill(::getpid(), SIGBUS);
    ::pause();
  });
  expectAllLines(readToEnd());
  EXPECT_EQ(signalOfEnd(), SIGBUS);
}

TEST_F(CrashHandlerTest, LinesBeforeTheFaultsOfSeveralThreadsAreWritten) {
  start([] {
    std::thread other([] { std::abort(); });
    fault();
  });
  expectAllLines(readToEnd());
  EXPECT_NE(signalOfEnd(), 0);
}

TEST_F(CrashHandlerTest, AnUncaughtExceptionIsLogged) {
  start([] { std::thread([] { throw std::runtime_error("went\nwrong"); }).join(); });
  const std::string text = readToEnd();
  expectAllLines(text);
  EXPECT_TRUE(text.ends_with("Z error   OstravelProxy: Terminated by an exception: went\\nwrong\n"))
      << text.substr(text.size() - 200);
  EXPECT_EQ(signalOfEnd(), SIGABRT);
}

TEST_F(CrashHandlerTest, AStalledReaderDoesNotPreventTheEnd) {
  const LineOutput output(pipe_.input());
  while (output.writePiece("filling\n", std::chrono::milliseconds(0)).size > 0) {
  }
  start([] { std::abort(); });
  EXPECT_EQ(signalOfEnd(), SIGABRT);
}

}  // namespace
}  // namespace ostravel::linuxplatform
