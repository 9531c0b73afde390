#include "Platform/Linux/StderrLog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace ostravel::linuxplatform {
namespace {

// A packet pipe keeps every write(2) apart (pipe(2), O_DIRECT).
class StderrLogTest : public testing::Test {
 protected:
  StderrLogTest() { EXPECT_EQ(::pipe2(ends_.data(), O_DIRECT | O_CLOEXEC | O_NONBLOCK), 0); }
  ~StderrLogTest() override {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }

  // Empty when nothing was written.
  std::string nextWrite() {
    std::array<char, 4096> bytes{};
    const auto count = ::read(ends_[0], bytes.data(), bytes.size());
    return count > 0 ? std::string(bytes.data(), static_cast<std::size_t>(count)) : std::string();
  }

  std::array<int, 2> ends_{};
};

TEST_F(StderrLogTest, WritesTimeLevelAndTextWithOneCallPerLine) {
  StderrLog log(ends_[1], StderrLog::Debug::isWritten);
  log.debug("OstravelProxy: a %{public}s", {"b"});
  log.info("OstravelProxy: c");
  log.standard("OstravelProxy: d");
  log.error("OstravelProxy: e %{public}d", {std::int64_t{7}});
  const std::string time = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )";
  EXPECT_TRUE(std::regex_match(nextWrite(), std::regex(time + "debug   OstravelProxy: a b\n")));
  EXPECT_TRUE(std::regex_match(nextWrite(), std::regex(time + "info    OstravelProxy: c\n")));
  EXPECT_TRUE(std::regex_match(nextWrite(), std::regex(time + "default OstravelProxy: d\n")));
  EXPECT_TRUE(std::regex_match(nextWrite(), std::regex(time + "error   OstravelProxy: e 7\n")));
  EXPECT_EQ(nextWrite(), "");
}

TEST_F(StderrLogTest, TheTimeIsUTC) {
  ASSERT_EQ(::setenv("TZ", "Asia/Tokyo", 1), 0);
  ::tzset();
  StderrLog log(ends_[1], StderrLog::Debug::isDropped);
  timespec before{};
  timespec after{};
  ::clock_gettime(CLOCK_REALTIME, &before);
  log.info("x");
  ::clock_gettime(CLOCK_REALTIME, &after);
  std::tm time{};
  int milliseconds = -1;
  ASSERT_EQ(std::sscanf(nextWrite().c_str(), "%d-%d-%dT%d:%d:%d.%dZ", &time.tm_year, &time.tm_mon,
                        &time.tm_mday, &time.tm_hour, &time.tm_min, &time.tm_sec, &milliseconds),
            7);
  time.tm_year -= 1900;
  time.tm_mon -= 1;
  const std::time_t written = ::timegm(&time);
  EXPECT_GE(written, before.tv_sec);
  EXPECT_LE(written, after.tv_sec);
}

TEST_F(StderrLogTest, DebugLinesAreDroppedUnlessAskedFor) {
  StderrLog log(ends_[1], StderrLog::Debug::isDropped);
  log.debug("hidden");
  EXPECT_EQ(nextWrite(), "");
  log.info("shown");
  EXPECT_NE(nextWrite(), "");
}

TEST_F(StderrLogTest, ALineBreakInAnArgumentDoesNotMakeALine) {
  StderrLog log(ends_[1], StderrLog::Debug::isDropped);
  log.error("OstravelProxy: %{public}s", {"one\ntwo"});
  const std::string line = nextWrite();
  EXPECT_NE(line.find("one\\x0atwo\n"), std::string::npos);
  EXPECT_EQ(line.find('\n'), line.size() - 1);
}

TEST_F(StderrLogTest, ALineThatCannotBeWrittenIsLostWithoutATrace) {
  StderrLog toNowhere(-1, StderrLog::Debug::isDropped);
  errno = EDOM;
  toNowhere.error("lost");
  EXPECT_EQ(errno, EDOM);
  // A full pipe that does not wait.
  StderrLog log(ends_[1], StderrLog::Debug::isDropped);
  for (int i = 0; i < 10000; ++i) {
    log.info("line");
  }
  EXPECT_EQ(errno, EDOM);
}

TEST_F(StderrLogTest, AClosedPipeIsNotFatalInAProcessThatIgnoresSIGPIPE) {
  const auto old = std::signal(SIGPIPE, SIG_IGN);
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  ::close(ends[0]);
  StderrLog log(ends[1], StderrLog::Debug::isDropped);
  log.info("lost");
  ::close(ends[1]);
  std::signal(SIGPIPE, old);
}

TEST_F(StderrLogTest, LinesFromManyThreadsStayWhole) {
  StderrLog log(ends_[1], StderrLog::Debug::isDropped);
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  int lines = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&log] {
      for (int line = 0; line < kLines; ++line) {
        log.info("OstravelProxy: %{public}s", {std::string(100, 'x')});
      }
    });
  }
  const std::regex whole(R"([^\n]{24} info    OstravelProxy: x{100}\n)");
  const auto readAll = [&] {
    for (std::string line = nextWrite(); !line.empty(); line = nextWrite()) {
      EXPECT_TRUE(std::regex_match(line, whole)) << line;
      ++lines;
    }
  };
  for (std::thread& thread : threads) {
    thread.join();
    readAll();
  }
  readAll();
  // A pipe that is full loses lines, but the first ones fit.
  EXPECT_GE(lines, 16);
}

}  // namespace
}  // namespace ostravel::linuxplatform
