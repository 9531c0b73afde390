#include "Platform/Linux/LinuxPlatform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <memory>
#include <optional>
#include <string>

#include "Tests/Platform/Linux/Support/ReceivingJournal.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using platform::DispatchQueueKind;
using std::chrono::steady_clock;

TEST(LinuxPlatformTest, QueuesAndTimersWorkTogether) {
  LinuxPlatform platform({});
  const auto queue = platform.makeQueue("com.ostravel.test", DispatchQueueKind::serial);
  EXPECT_EQ(queue->label(), "com.ostravel.test");
  const auto timer = platform.makeTimer(queue);
  std::promise<void> fired;
  timer->setEventHandler([&fired] { fired.set_value(); });
  timer->schedule(1ms, std::nullopt, 0ns);
  timer->resume();
  fired.get_future().wait();
  queue->sync([] {});
}

TEST(LinuxPlatformTest, MakesQueuesOfBothKinds) {
  LinuxPlatform platform({});
  const auto concurrent = platform.makeQueue("c", DispatchQueueKind::concurrent);
  std::latch together(2);
  concurrent->async([&together] { together.arrive_and_wait(); });
  concurrent->sync([&together] { together.arrive_and_wait(); });
  concurrent->syncBarrier([] {});
  const auto serial = platform.makeQueue("s", DispatchQueueKind::serial);
  int count = 0;
  serial->async([&count] { ++count; });
  serial->sync([&count] { ++count; });
  EXPECT_EQ(count, 2);
}

TEST(LinuxPlatformTest, LogsToStandardError) {
  ::testing::internal::CaptureStderr();
  {
    LinuxPlatform platform({});
    platform.makeLog("OstravelNetworkExtension", "OstravelProxy")->info("OstravelProxy: one");
    platform.makeLog("OstravelNetworkExtension", "OstravelProxy")->debug("OstravelProxy: hidden");
    platform.defaultLog().standard("OstravelProxy: two");
    platform.systemLog("OstravelProxy monitoring send failed: %{public}s\n");
  }
  const std::string text = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(text.find("Z info    OstravelProxy: one\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Z default OstravelProxy: two\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Z error   OstravelProxy monitoring send failed: %{public}s\\n\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("hidden"), std::string::npos) << text;
}

TEST(LinuxPlatformTest, FlushingWritesTheLog) {
  ::testing::internal::CaptureStderr();
  LinuxPlatform platform({});
  for (int line = 0; line < 1000; ++line) {
    platform.defaultLog().info("OstravelProxy: line");
  }
  platform.defaultLog().info("OstravelProxy: last");
  EXPECT_TRUE(platform.flushLog(steady_clock::now() + 60s));
  EXPECT_TRUE(
      ::testing::internal::GetCapturedStderr().ends_with("Z info    OstravelProxy: last\n"));
}

TEST(LinuxPlatformTest, TheJournalSinkWritesNothingToStandardError) {
  ::testing::internal::CaptureStderr();
  {
    LinuxPlatform platform({.logSink = LinuxPlatform::LogSink::journal});
    platform.makeLog("s", "c")->error("OstravelProxy: elsewhere");
    platform.defaultLog().error("OstravelProxy: elsewhere");
    platform.systemLog("elsewhere");
  }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(LinuxPlatformTest, LinesOfNoObjectHaveTheSystemsSubsystemAndCategory) {
  ostravel::testing::withPrivateRun([] {
    const ostravel::testing::ReceivingJournal journal;
    LinuxPlatform platform({.logSink = LinuxPlatform::LogSink::journal});
    platform.defaultLog().error("of no object");
    platform.systemLog("of the system");
    ASSERT_TRUE(platform.flushLog(steady_clock::now() + 60s));
    for (const char* const line : {"of no object", "of the system"}) {
      const auto fields = journal.nextEntry();
      EXPECT_TRUE(fields.contains(std::string("MESSAGE=") + line));
      EXPECT_TRUE(fields.contains("OSTRAVEL_SUBSYSTEM=OstravelNetworkExtension"));
      EXPECT_TRUE(fields.contains("OSTRAVEL_CATEGORY=OstravelProxy"));
    }
  });
}

TEST(LinuxPlatformTest, HasNoBundle) {
  LinuxPlatform platform({});
  EXPECT_FALSE(platform.mainBundleIdentifier().has_value());
}

TEST(LinuxPlatformTest, ProvidesTheSmallServices) {
  LinuxPlatform platform({});
  EXPECT_GT(platform.clock().secondsSince1970(), 1.6e9);
  EXPECT_EQ(platform.uuidSource().randomUUID().size(), 36U);
  EXPECT_EQ(platform.text().lowercased("API.Example"), "api.example");
  EXPECT_EQ(platform.sockets().addressLayout(), platform::SocketAddressLayout::linuxABI);
}

TEST(LinuxPlatformTest, DrainingStopsTheTimersAndWaitsForTheItems) {
  LinuxPlatform platform({});
  const auto queue = platform.makeQueue("q", DispatchQueueKind::serial);
  const auto timer = platform.makeTimer(queue);
  std::atomic<int> fired = 0;
  timer->setEventHandler([&fired] { ++fired; });
  timer->schedule(0ns, 10us, 0ns);
  timer->resume();
  std::latch release(1);
  bool hasRun = false;
  queue->async([&] {
    release.wait();
    hasRun = true;
  });
  EXPECT_FALSE(platform.drain(steady_clock::now() + 10ms));
  release.count_down();
  EXPECT_TRUE(platform.drain(steady_clock::now() + 60s));
  EXPECT_TRUE(hasRun);
  const int atEnd = fired;
  queue->sync([] {});
  EXPECT_EQ(fired, atEnd);
}

TEST(LinuxPlatformTest, DestructionRunsRemainingItemsWhileTimersExpire) {
  std::atomic<int> ran = 0;
  for (int i = 0; i < 20; ++i) {
    auto platform = std::make_unique<LinuxPlatform>(LinuxPlatform::Options{});
    const auto queue = platform->makeQueue("q", DispatchQueueKind::serial);
    // Held by an item, so that the pool releases it.
    auto timer = platform->makeTimer(queue);
    timer->setEventHandler([] {});
    timer->schedule(0ns, 10us, 0ns);
    timer->resume();
    for (int item = 0; item < 50; ++item) {
      queue->async([&ran, timer] { ++ran; });
    }
    timer.reset();
    platform.reset();
  }
  EXPECT_EQ(ran, 20 * 50);
}

}  // namespace
}  // namespace ostravel::linuxplatform
