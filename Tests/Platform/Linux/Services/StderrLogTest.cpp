#include "Platform/Linux/Services/StderrLog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "Tests/Support/TestPipe.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

std::shared_ptr<BackgroundWriter> writerOn(int descriptor) {
  return std::make_shared<BackgroundWriter>(std::make_unique<StderrLog::Output>(descriptor),
                                            BackgroundWriter::kUsualCapacity, "stderr");
}

class StderrLogTest : public ::testing::Test {
 protected:
  StderrLogTest() {
    std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(::fcntl(pipe_.output(), F_SETFL, O_NONBLOCK), 0);
  }
  // Remaining lines then meet a closed pipe.
  ~StderrLogTest() override {
    pipe_.closeOutput();
    pipe_.closeInput();
  }

  void flush() { ASSERT_TRUE(writer_->flush(steady_clock::now() + 60s)); }

  std::string written() {
    flush();
    return pipe_.read();
  }

  // Fills the pipe, and then logs count lines.
  void stall(platform::Log& log, int count) {
    const LineOutput output(pipe_.input());
    while (output.writePiece("filling\n", 0ms).size > 0) {
    }
    for (int line = 0; line < count; ++line) {
      log.info("OstravelProxy: line %{public}d", {std::int64_t{line}});
    }
  }

  testing::TestPipe pipe_;
  std::shared_ptr<BackgroundWriter> writer_ = writerOn(pipe_.input());
};

TEST_F(StderrLogTest, WritesTimeLevelAndText) {
  StderrLog log(writer_);
  log.info("OstravelProxy: a %{public}s", {"b"});
  log.standard("OstravelProxy: d");
  log.error("OstravelProxy: e %{public}d", {std::int64_t{7}});
  const std::string time = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )";
  EXPECT_TRUE(std::regex_match(
      written(), std::regex(time + "info    OstravelProxy: a b\n" + time +
                            "default OstravelProxy: d\n" + time + "error   OstravelProxy: e 7\n")));
}

TEST_F(StderrLogTest, TheTimeIsUTCAndThatOfTheCall) {
  ASSERT_EQ(::setenv("TZ", "Asia/Tokyo", 1), 0);
  ::tzset();
  StderrLog log(writer_);
  timespec before{};
  timespec after{};
  ::clock_gettime(CLOCK_REALTIME, &before);
  log.info("x");
  ::clock_gettime(CLOCK_REALTIME, &after);
  std::tm time{};
  int milliseconds = -1;
  ASSERT_EQ(std::sscanf(written().c_str(), "%d-%d-%dT%d:%d:%d.%dZ", &time.tm_year, &time.tm_mon,
                        &time.tm_mday, &time.tm_hour, &time.tm_min, &time.tm_sec, &milliseconds),
            7);
  time.tm_year -= 1900;
  time.tm_mon -= 1;
  const std::time_t logged = ::timegm(&time);
  EXPECT_GE(logged, before.tv_sec);
  EXPECT_LE(logged, after.tv_sec);
}

TEST_F(StderrLogTest, DropsDebugLines) {
  StderrLog log(writer_);
  log.debug("hidden");
  EXPECT_EQ(written(), "");
  log.info("shown");
  EXPECT_NE(written(), "");
}

TEST_F(StderrLogTest, ALineBreakInAnArgumentDoesNotMakeALine) {
  StderrLog log(writer_);
  log.error("OstravelProxy: %{public}s", {"one\ntwo"});
  const std::string line = written();
  EXPECT_NE(line.find("one\\ntwo\n"), std::string::npos);
  EXPECT_EQ(line.find('\n'), line.size() - 1);
}

TEST_F(StderrLogTest, SilentlyLosesALineThatCannotBeWritten) {
  writer_ = writerOn(-1);
  StderrLog toNowhere(writer_);
  errno = EDOM;
  toNowhere.error("lost");
  EXPECT_EQ(errno, EDOM);
  flush();
}

TEST_F(StderrLogTest, AClosedPipeIsNotFatalInAProcessThatIgnoresSIGPIPE) {
  testing::TestPipe closed;
  closed.closeOutput();
  writer_ = writerOn(closed.input());
  StderrLog log(writer_);
  log.info("lost");
  flush();
}

TEST_F(StderrLogTest, AnUnreadPipeDoesNotBlockTheCaller) {
  StderrLog log(writer_);
  errno = EDOM;
  // Far more than the pipe and the writer hold: a blocking write would never return.
  stall(log, 100'000);
  EXPECT_EQ(errno, EDOM);
}

TEST_F(StderrLogTest, CountsDroppedLines) {
  StderrLog log(writer_);
  constexpr int kLines = 100'000;
  stall(log, kLines);
  std::string text;
  while (!writer_->flush(steady_clock::now() + 1ms)) {
    text += pipe_.read();
  }
  text += pipe_.read();
  const auto find = [&text](const std::string& pattern) {
    const std::regex line(pattern);
    return std::vector<std::smatch>(std::sregex_iterator(text.begin(), text.end(), line),
                                    std::sregex_iterator());
  };
  auto accounted = static_cast<int>(find("info    OstravelProxy: line [0-9]+\n").size());
  const auto reports = find("Z error   OstravelProxy: Log lines dropped count=([0-9]+)\n");
  // Two if the writer took its first buffer only after it was full.
  ASSERT_TRUE(reports.size() == 1 || reports.size() == 2) << reports.size();
  for (const auto& report : reports) {
    accounted += std::stoi(report[1]);
  }
  EXPECT_EQ(accounted, kLines);
}

TEST_F(StderrLogTest, LeavesOutLessImportantLines) {
  StderrLog log(writer_, platform::LogLevel::error);
  log.info("b");
  log.standard("c");
  log.error("d");
  StderrLog(writer_, platform::LogLevel::debug).debug("a");
  const std::string text = written();
  EXPECT_TRUE(std::regex_match(text, std::regex(R"([^\n]{24} error   d\n[^\n]{24} debug   a\n)")))
      << text;
}

TEST_F(StderrLogTest, LinesFromManyThreadsStayWhole) {
  StderrLog log(writer_);
  constexpr int kThreads = 4;
  // All of them fit into the pipe in any order.
  constexpr int kLines = 40;
  std::vector<std::jthread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&log] {
      for (int line = 0; line < kLines; ++line) {
        log.info("OstravelProxy: %{public}s", {std::string(100, 'x')});
      }
    });
  }
  threads.clear();
  const std::string text = written();
  const std::string rest =
      std::regex_replace(text, std::regex(R"([^\n]{24} info    OstravelProxy: x{100}\n)"), "l");
  EXPECT_EQ(rest, std::string(kThreads * kLines, 'l'));
}

}  // namespace
}  // namespace ostravel::linuxplatform
