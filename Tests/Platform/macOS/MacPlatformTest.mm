#import "Platform/macOS/MacPlatform.h"

#include <gtest/gtest.h>
#import <os/log.h>

#include <string>
#include <vector>

#import "Tests/StandInMac/LogRecord.h"

namespace ostravel::macos::test {
namespace {

using standin::LogLine;

class MacPlatformTest : public ::testing::Test {
 protected:
  MacPlatformTest() { standin::clearLogRecord(); }
  ~MacPlatformTest() override { standin::setDebugLogging(true); }

  MacPlatform platform_;
};

TEST_F(MacPlatformTest, LogLinesAreFormattedPublicAndKeepTheirLevel) {
  const auto log = platform_.makeLog("com.example", "Category");
  log->debug("debug %{public}s", {"text"});
  log->info("info %{public}d", {std::int64_t{-3}});
  log->standard("standard");
  log->error("error %{public}s and %{public}d", {"100%", std::int64_t{7}});
  const std::vector<LogLine> expected{
      {"com.example", "Category", OS_LOG_TYPE_DEBUG, "debug text"},
      {"com.example", "Category", OS_LOG_TYPE_INFO, "info -3"},
      {"com.example", "Category", OS_LOG_TYPE_DEFAULT, "standard"},
      {"com.example", "Category", OS_LOG_TYPE_ERROR, "error 100% and 7"},
  };
  EXPECT_EQ(standin::loggedLines(), expected);
}

TEST_F(MacPlatformTest, DisabledDebugLinesAreNotFormatted) {
  standin::setDebugLogging(false);
  const auto log = platform_.makeLog("com.example", "Category");
  log->debug("debug");
  log->info("info");
  EXPECT_EQ(standin::loggedLines().size(), 1U);
}

TEST_F(MacPlatformTest, TheDefaultLogIsTheSystems) {
  platform_.defaultLog().error("lost %{public}s", {"object"});
  const std::vector<LogLine> expected{{"", "", OS_LOG_TYPE_ERROR, "lost object"}};
  EXPECT_EQ(standin::loggedLines(), expected);
}

TEST_F(MacPlatformTest, TheSystemLogKeepsALineUnchanged) {
  platform_.systemLog("OstravelProxy monitoring send failed: 100% %@ \u00fc");
  const auto lines = standin::systemLogLines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_NE(lines.front().find("OstravelProxy monitoring send failed: 100% %@ \u00fc"),
            std::string::npos);
}

TEST_F(MacPlatformTest, AProcessWithoutABundleHasNoIdentifier) {
  EXPECT_EQ(platform_.mainBundleIdentifier(), std::nullopt);
}

TEST_F(MacPlatformTest, SocketAddressesHaveTheLayoutOfTheirSystem) {
  // Darwin's layout is tested by its bytes, without a socket.
  EXPECT_EQ(platform_.sockets().addressLayout(), platform::SocketAddressLayout::linuxABI);
}

}  // namespace
}  // namespace ostravel::macos::test
