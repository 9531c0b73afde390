#include "Extension/main/ServiceStatus.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

using Reason = ProxyingState::Reason;

class ServiceStatusTest : public ::testing::Test {
 protected:
  // The assignments of the beat.
  std::string beat(std::optional<bool> isGateOpen, std::chrono::milliseconds after = 0ms) {
    status_.beat(isGateOpen, Reason::proxied, begin_ + after);
    return sent_;
  }
  std::string beatWhileHung(bool isGateOpen) {
    status_.beat(isGateOpen, Reason::proxyNotAnswering, begin_);
    return sent_;
  }

  const ServiceStatus::Clock::time_point begin_;
  std::string sent_;
  ServiceStatus status_{[this](const std::string& assignments) { sent_ = assignments; }};
};

TEST_F(ServiceStatusTest, TheFirstAnswerMakesItReady) {
  EXPECT_EQ(
      beat(std::nullopt),
      "WATCHDOG=1\nSTATUS=Gate closed: 127.0.0.1:8080 has not been probed yet; connections go "
      "direct");
  EXPECT_EQ(beat(false, 250ms),
            "WATCHDOG=1\nREADY=1\nSTATUS=Gate closed: nothing answers on 127.0.0.1:8080; "
            "connections go direct");
  EXPECT_EQ(beat(false, 500ms), "WATCHDOG=1");
}

TEST_F(ServiceStatusTest, TwoSecondsWithoutAnAnswerMakeItReady) {
  beat(std::nullopt);
  EXPECT_EQ(beat(std::nullopt, 1999ms), "WATCHDOG=1");
  EXPECT_EQ(beat(std::nullopt, 2000ms), "WATCHDOG=1\nREADY=1");
  EXPECT_EQ(beat(std::nullopt, 2250ms), "WATCHDOG=1");
}

TEST_F(ServiceStatusTest, NamesTheProxyWhileTheGateIsOpen) {
  EXPECT_EQ(beat(true),
            "WATCHDOG=1\nREADY=1\nSTATUS=Gate open: no proxy that serves all users on "
            "127.0.0.1:8080");
  status_.setProxy("/usr/bin/tinyproxy (process 812, user tinyproxy)");
  EXPECT_EQ(
      beat(true),
      "WATCHDOG=1\nSTATUS=Gate open: the local proxy is /usr/bin/tinyproxy (process 812, user "
      "tinyproxy)");
  EXPECT_EQ(beat(true), "WATCHDOG=1");
  EXPECT_EQ(beat(false),
            "WATCHDOG=1\nSTATUS=Gate closed: nothing answers on 127.0.0.1:8080; connections go "
            "direct");
  status_.setProxy("");
  EXPECT_EQ(beat(true),
            "WATCHDOG=1\nSTATUS=Gate open: no proxy that serves all users on 127.0.0.1:8080");
}

TEST_F(ServiceStatusTest, SaysThatTheProxyDoesNotAnswer) {
  status_.setProxy("tinyproxy (process 812)");
  beat(true);
  EXPECT_EQ(beatWhileHung(true),
            "WATCHDOG=1\nSTATUS=Gate open: tinyproxy (process 812) does not answer in time; "
            "connections go direct");
  // A handshake that times out closes the gate until the next probe.
  EXPECT_EQ(beatWhileHung(false),
            "WATCHDOG=1\nSTATUS=Gate closed: tinyproxy (process 812) does not answer in time; "
            "connections go direct");
}

TEST_F(ServiceStatusTest, SaysWhyConnectionsGoDirectPastAWorkingProxy) {
  status_.setProxy("tinyproxy (process 812)");
  beat(true);
  status_.beat(true, Reason::redirectBlocked, begin_);
  EXPECT_EQ(sent_,
            "WATCHDOG=1\nSTATUS=Gate open: rules of another program block redirected connections; "
            "connections go direct");
  status_.beat(true, Reason::descriptors, begin_);
  EXPECT_EQ(sent_,
            "WATCHDOG=1\nSTATUS=Gate open: too few descriptors are left; connections go direct");
  EXPECT_EQ(beat(true), "WATCHDOG=1\nSTATUS=Gate open: the local proxy is tinyproxy (process 812)");
}

// The service manager does not read, and an event loop reports the proxy.
TEST(ServiceStatusStallTest, AStalledNotificationDelaysNobodyElse) {
  std::string sent;
  bool isInside = false;
  std::optional<ServiceStatus> status;
  status.emplace([&](const std::string& assignments) {
    sent = assignments;
    if (!std::exchange(isInside, true)) {
      status->setProxy("sidecar (process 7, user 0)");
    }
  });
  const ServiceStatus::Clock::time_point begin;
  status->beat(true, Reason::proxied, begin);
  status->beat(true, Reason::proxied, begin);
  EXPECT_EQ(sent, "WATCHDOG=1\nSTATUS=Gate open: the local proxy is sidecar (process 7, user 0)");
}

}  // namespace
}  // namespace ostravel::linuxplatform
