#import "Platform/macOS/Provider/OVPacketTunnelProvider.h"

#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#import "Platform/macOS/Foundation/FoundationError.h"
#import "Platform/macOS/Foundation/FoundationText.h"
#import "Tests/Platform/macOS/Provider/PrincipalObject.h"
#import "Tests/StandInMac/ErrorWithoutText.h"
#import "Tests/StandInMac/LogRecord.h"
#include "Tests/StandInMac/SystemBehaviour.h"
#include "Tests/StandInMac/WorkerPool.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::macos::test {
namespace {

using testing::ChildProcess;
using testing::TemporaryFolder;
using testing::waitUntil;

std::vector<std::string> loggedTexts() {
  std::vector<std::string> texts;
  for (const auto& line : standin::loggedLines()) {
    texts.push_back(line.text);
  }
  return texts;
}

bool wasLogged(const std::string& text) {
  const auto texts = loggedTexts();
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

// Starting and stopping, as the system does it.
class OVPacketTunnelProviderTest : public ::testing::Test {
 protected:
  ~OVPacketTunnelProviderTest() override {
    provider_.release();
    [pool_ release];
  }

 private:
  struct EmptyLog {
    EmptyLog() { standin::clearLogRecord(); }
  };

  NSAutoreleasePool* const pool_ = [[NSAutoreleasePool alloc] init];
  // The first line is written when the object is created.
  const EmptyLog emptyLog_;

 protected:
  PrincipalObject provider_;
};

TEST_F(OVPacketTunnelProviderTest, StartsWithoutAConfiguration) {
  const auto answer = provider_.start();
  ASSERT_TRUE(waitUntil([&] { return answer->count > 0; }));
  EXPECT_EQ(answer->error().get(), nil);
  const std::vector<std::string> expected{
      "OstravelProxy: init()",
      "OstravelProxy: Starting Proxy provider...",
      "OstravelProxy: Rules summary included=32 excluded=2 httpsOnly=false",
      "OstravelProxy: Rules set successfully",
  };
  EXPECT_EQ(loggedTexts(), expected);
  for (const auto& line : standin::loggedLines()) {
    EXPECT_EQ(line.subsystem, "OstravelNetworkExtension");
    EXPECT_EQ(line.category, "OstravelProxy");
  }
}

TEST_F(OVPacketTunnelProviderTest, AsksForTheRulesInTheirOrder) {
  provider_.startUp();
  const auto applied = standin::appliedSettings(provider_.get());
  ASSERT_EQ(applied.size(), 1U);
  EXPECT_EQ(applied[0].tunnelRemoteAddress, "127.0.0.1");
  ASSERT_EQ(applied[0].included.size(), 32U);
  const std::vector<std::string> first(applied[0].included.begin(),
                                       applied[0].included.begin() + 6);
  const std::vector<std::string> expected{"0.0.0.0:80/0 tcp",    ":::80/0 tcp",
                                          "127.0.0.1:80/32 tcp", "::1:80/128 tcp",
                                          "0.0.0.0:80/0 udp",    ":::80/0 udp"};
  EXPECT_EQ(first, expected);
  const std::vector<std::string> excluded{"127.0.0.1:8080/32 tcp", "::1:8080/128 tcp"};
  EXPECT_EQ(applied[0].excluded, excluded);
}

TEST_F(OVPacketTunnelProviderTest, IgnoresTheOptionsOfTheStart) {
  const auto answer = provider_.start(@{@"monitoringSocketPath" : [NSNull null]});
  ASSERT_TRUE(waitUntil([&] { return answer->count > 0; }));
  EXPECT_EQ(answer->error().get(), nil);
}

TEST_F(OVPacketTunnelProviderTest, RefusedRulesFailTheStartWithTheSystemsError) {
  NSError* const error =
      [NSError errorWithDomain:NETunnelProviderErrorDomain
                          code:NETunnelProviderErrorNetworkSettingsFailed
                      userInfo:[NSDictionary dictionaryWithObject:@"no rules"
                                                           forKey:NSLocalizedDescriptionKey]];
  standin::failSettings(provider_.get(), error);
  const auto answer = provider_.start();
  ASSERT_TRUE(waitUntil([&] { return answer->count > 0; }));
  EXPECT_EQ(answer->error().get(), error);
  EXPECT_TRUE(wasLogged("OstravelProxy: Failed to set rules: no rules"));
}

TEST_F(OVPacketTunnelProviderTest, AnErrorWithoutDescriptionIsPassedOn) {
  standin::failSettings(provider_.get(), [ErrorWithoutText errorWithDomain:@"Domain"
                                                                      code:3
                                                                  userInfo:nil]);
  const auto answer = provider_.start();
  ASSERT_TRUE(waitUntil([&] { return answer->count > 0; }));
  EXPECT_EQ(textOf([answer->error().get() domain]), "Domain");
  EXPECT_EQ([answer->error().get() code], 3);
  EXPECT_TRUE(wasLogged("OstravelProxy: Failed to set rules: "));
}

TEST_F(OVPacketTunnelProviderTest, OverlappingStartsReachTheCoreOnce) {
  const standin::BehaviourScope behaviour({.crashesOnRepeatedSettings = true});
  const auto hold = standin::holdSettings(provider_.get());
  const auto first = provider_.start();
  const auto second = provider_.start();
  standin::settleWorkers();
  EXPECT_EQ(first->count + second->count, 0);
  hold->letGo();
  ASSERT_TRUE(waitUntil([&] { return first->count > 0 && second->count > 0; }));
  standin::settleWorkers();
  EXPECT_EQ(first->count, 1);
  EXPECT_EQ(second->count, 1);
  EXPECT_EQ(first->error().get(), nil);
  EXPECT_EQ(second->error().get(), nil);
  EXPECT_EQ(standin::appliedSettings(provider_.get()).size(), 1U);
  EXPECT_EQ(provider_.stop()->count, 1);
}

TEST_F(OVPacketTunnelProviderTest, AStartOfARunningProviderIsAnsweredAtOnce) {
  const standin::BehaviourScope behaviour({.crashesOnRepeatedSettings = true});
  provider_.startUp();
  const auto second = provider_.start();
  EXPECT_EQ(second->count, 1);
  EXPECT_EQ(second->error().get(), nil);
}

TEST_F(OVPacketTunnelProviderTest, OverlappingStartsFailWithTheSameError) {
  standin::failSettings(provider_.get(), [NSError errorWithDomain:@"Domain" code:4 userInfo:nil]);
  const auto first = provider_.start();
  const auto second = provider_.start();
  ASSERT_TRUE(waitUntil([&] { return first->count > 0 && second->count > 0; }));
  EXPECT_EQ([first->error().get() code], 4);
  EXPECT_EQ([second->error().get() code], 4);
}

TEST_F(OVPacketTunnelProviderTest, AStartAfterAStopReachesTheCore) {
  provider_.startUp();
  provider_.stop();
  provider_.startUp();
  EXPECT_EQ(standin::appliedSettings(provider_.get()).size(), 2U);
}

// Tests the stand-in itself: it ends a process that applies its settings twice.
TEST_F(OVPacketTunnelProviderTest, TheStandInCrashesOnRepeatedSettings) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        const standin::BehaviourScope behaviour({.crashesOnRepeatedSettings = true});
        provider_.startUp();
        provider_.stop();
        provider_.start();
      },
      "Over-resume");
}

TEST_F(OVPacketTunnelProviderTest, TheStartIsAnsweredAfterTheProviderIsDestroyed) {
  const auto hold = standin::holdSettings(provider_.get());
  const auto answer = provider_.start();
  provider_.release();
  ASSERT_TRUE(waitUntil([] { return wasLogged("OstravelProxy: deinit"); }));
  EXPECT_EQ(answer->count, 0);
  hold->letGo();
  ASSERT_TRUE(waitUntil([&] { return answer->count > 0; }));
  standin::settleWorkers();
  EXPECT_EQ(answer->count, 1);
  EXPECT_EQ(answer->error().get(), nil);
  EXPECT_FALSE(wasLogged("OstravelProxy: Rules set successfully"));
}

TEST_F(OVPacketTunnelProviderTest, AFailedStartIsAnsweredAfterTheProviderIsDestroyed) {
  standin::failSettings(provider_.get(), [NSError errorWithDomain:@"Domain" code:4 userInfo:nil]);
  const auto hold = standin::holdSettings(provider_.get());
  const auto answer = provider_.start();
  provider_.release();
  hold->letGo();
  ASSERT_TRUE(waitUntil([&] { return answer->count > 0; }));
  EXPECT_EQ([answer->error().get() code], 4);
}

TEST_F(OVPacketTunnelProviderTest, SettingsMayBeAnsweredInsideTheCall) {
  const standin::BehaviourScope behaviour({.answersSettingsInsideTheCall = true});
  provider_.startUp();
  EXPECT_TRUE(wasLogged("OstravelProxy: Rules set successfully"));
}

TEST_F(OVPacketTunnelProviderTest, TheSystemMayReleaseTheProviderInsideItsStart) {
  for (const bool answersInside : {false, true}) {
    standin::clearLogRecord();
    const standin::BehaviourScope behaviour({.answersSettingsInsideTheCall = answersInside});
    PrincipalObject provider;
    standin::onSettings(provider.get(), [&provider] { provider.release(); });
    const auto answer = provider.start();
    ASSERT_TRUE(waitUntil([&] { return answer->count > 0; }));
    ASSERT_TRUE(waitUntil([] { return wasLogged("OstravelProxy: deinit"); }));
    EXPECT_EQ(answer->error().get(), nil);
  }
}

TEST_F(OVPacketTunnelProviderTest, StopsAtOnce) {
  provider_.startUp();
  EXPECT_EQ(provider_.stop()->count, 1);
  EXPECT_TRUE(wasLogged("OstravelProxy: Stopping Proxy"));
}

TEST_F(OVPacketTunnelProviderTest, EveryStopIsAnswered) {
  EXPECT_EQ(provider_.stop()->count, 1);
  provider_.startUp();
  EXPECT_EQ(provider_.stop(NEProviderStopReasonSleep)->count, 1);
  EXPECT_EQ(provider_.stop(static_cast<NEProviderStopReason>(99))->count, 1);
}

TEST_F(OVPacketTunnelProviderTest, TheCoreIsDestroyedWithThePrincipalObject) {
  provider_.startUp();
  provider_.stop();
  provider_.release();
  EXPECT_TRUE(waitUntil([] { return wasLogged("OstravelProxy: deinit"); }));
}

// Configurations that name no path: the start succeeds, and nothing is sent or logged about it.
class NoMonitoringPathTest : public OVPacketTunnelProviderTest {
 protected:
  void expectSilence() {
    provider_.startUp();
    provider_.stop();
    provider_.release();
    standin::settleWorkers();
    EXPECT_TRUE(standin::systemLogLines().empty());
  }
};

TEST_F(NoMonitoringPathTest, NoProtocol) {
  expectSilence();
}

TEST_F(NoMonitoringPathTest, AProtocolOfAnotherKind) {
  provider_.configureOtherwise([[[NEVPNProtocol alloc] init] autorelease]);
  expectSilence();
}

TEST_F(NoMonitoringPathTest, NoDictionary) {
  provider_.configure(nil);
  expectSilence();
}

TEST_F(NoMonitoringPathTest, NoSuchKey) {
  provider_.configure(@{@"other" : @"/tmp/other"});
  expectSilence();
}

TEST_F(NoMonitoringPathTest, ValuesOfOtherTypes) {
  NSArray* const values = @[
    [NSNumber numberWithInt:5], [NSNumber numberWithBool:YES], [NSNull null], [NSData data],
    [NSArray arrayWithObject:@"/tmp/events"]
  ];
  for (id value in values) {
    provider_.configure([NSDictionary dictionaryWithObject:value forKey:@"monitoringSocketPath"]);
    provider_.startUp();
    provider_.stop();
  }
  expectSilence();
}

TEST_F(NoMonitoringPathTest, NothingButWhiteSpace) {
  provider_.configure(@{@"monitoringSocketPath" : @" \n\t"});
  expectSilence();
}

TEST_F(OVPacketTunnelProviderTest, APathWithoutAListenerIsOneSystemLogLinePerEvent) {
  provider_.configure(@{@"monitoringSocketPath" : @"/nonexistent/events"});
  provider_.startUp();
  ASSERT_TRUE(waitUntil([] { return !standin::systemLogLines().empty(); }));
  EXPECT_NE(standin::systemLogLines().front().find(
                "OstravelProxy monitoring send failed: Error Domain=NSPOSIXErrorDomain Code=2 "
                "\"Failed to connect to monitoring socket\""),
            std::string::npos);
}

TEST_F(OVPacketTunnelProviderTest, EventsReachTheMonitor) {
  const TemporaryFolder folder;
  const std::string path = folder.path("events");
  ChildProcess monitor({OSTRAVEL_MONITOR_PROGRAM, "--json", "--socket", path});
  monitor.readErrorLine();
  provider_.configure([NSDictionary dictionaryWithObject:makeString("  " + path + "\n")
                                                  forKey:@"monitoringSocketPath"]);
  provider_.startUp();
  // The first probe finds no proxy, and runs while the start does.
  const auto first = monitor.readOutputLine();
  const auto second = monitor.readOutputLine();
  for (const auto* const code : {"extension.provider_started", "extension.proxy_unreachable"}) {
    EXPECT_NE((first + second).find(code), std::string::npos) << first << second;
  }
  provider_.stop(NEProviderStopReasonSleep);
  const auto stopped = monitor.readOutputLine();
  EXPECT_NE(stopped.find("extension.provider_stopped"), std::string::npos);
  EXPECT_NE(stopped.find("\"reason\":\"15\""), std::string::npos);
}

}  // namespace
}  // namespace ostravel::macos::test
