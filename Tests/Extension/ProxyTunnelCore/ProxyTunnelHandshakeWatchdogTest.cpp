#include "Extension/ProxyTunnelCore/ProxyTunnelHandshakeWatchdog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Simulation/Simulation.h"
#include "Tests/Extension/Support/NotingPlatform.h"

namespace ostravel {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

class ProxyTunnelHandshakeWatchdogTest : public testing::Test {
 protected:
  std::shared_ptr<ProxyTunnelHandshakeWatchdog> make(double timeout) {
    return std::make_shared<ProxyTunnelHandshakeWatchdog>(simulation_, timeout, queue_,
                                                          [this] { ++timeouts_; });
  }

  simulation::Simulation simulation_;
  std::shared_ptr<platform::DispatchQueue> queue_ =
      simulation_.makeQueue("watchdog", platform::DispatchQueueKind::serial);
  int timeouts_ = 0;
};

TEST_F(ProxyTunnelHandshakeWatchdogTest, IsIdleUntilItIsStarted) {
  const auto watchdog = make(5.0);

  simulation_.advance(1h);
  EXPECT_EQ(timeouts_, 0);

  watchdog->start();
  simulation_.advance(5s);
  EXPECT_EQ(timeouts_, 1);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, FiresOnceAtItsDeadline) {
  const auto watchdog = make(5.0);
  watchdog->start();

  simulation_.advance(5s - 1ns);
  EXPECT_EQ(timeouts_, 0);

  simulation_.advance(1ns);
  EXPECT_EQ(timeouts_, 1);

  simulation_.advance(1h);
  EXPECT_EQ(timeouts_, 1);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, TakesFractionsOfASecond) {
  const auto watchdog = make(0.25);
  watchdog->start();

  simulation_.advance(250ms - 1ns);
  EXPECT_EQ(timeouts_, 0);

  simulation_.advance(1ns);
  EXPECT_EQ(timeouts_, 1);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, FiresOnItsQueueAndNotInsideStart) {
  const auto watchdog = make(1e-9);

  watchdog->start();

  EXPECT_EQ(timeouts_, 0);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, NeverFiresOnceFinished) {
  const auto watchdog = make(5.0);
  watchdog->start();
  simulation_.advance(5s - 1ns);

  watchdog->finishWithoutCallback();
  simulation_.advance(1h);

  EXPECT_EQ(timeouts_, 0);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, StaysIdleWhenFinishedBeforeItsStart) {
  const auto watchdog = make(5.0);

  watchdog->finishWithoutCallback();
  watchdog->start();
  simulation_.advance(5s);

  EXPECT_EQ(timeouts_, 1);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, MayBeFinishedTwice) {
  const auto watchdog = make(5.0);
  watchdog->start();

  watchdog->finishWithoutCallback();
  watchdog->finishWithoutCallback();
  simulation_.advance(1h);

  EXPECT_EQ(timeouts_, 0);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, MayBeFinishedAfterItFired) {
  const auto watchdog = make(5.0);
  watchdog->start();
  simulation_.advance(5s);

  watchdog->finishWithoutCallback();
  simulation_.advance(1h);

  EXPECT_EQ(timeouts_, 1);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, KeepsItsDeadlineWhenStartedAgain) {
  const auto watchdog = make(5.0);
  watchdog->start();
  simulation_.advance(3s);

  watchdog->start();
  simulation_.advance(2s);
  EXPECT_EQ(timeouts_, 1);

  simulation_.advance(1h);
  EXPECT_EQ(timeouts_, 1);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, CannotBeStartedAgainOnceFinished) {
  const auto watchdog = make(5.0);
  watchdog->start();
  watchdog->finishWithoutCallback();

  watchdog->start();
  simulation_.advance(1h);

  EXPECT_EQ(timeouts_, 0);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, CannotBeStartedAgainOnceFired) {
  const auto watchdog = make(5.0);
  watchdog->start();
  simulation_.advance(5s);

  watchdog->start();
  simulation_.advance(1h);

  EXPECT_EQ(timeouts_, 1);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, IgnoresATimeoutWhileIdle) {
  const auto watchdog = make(5.0);

  watchdog->handleTimeout();
  EXPECT_EQ(timeouts_, 0);

  watchdog->start();
  simulation_.advance(5s);
  EXPECT_EQ(timeouts_, 1);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, IgnoresATimeoutOnceFinished) {
  const auto watchdog = make(5.0);
  watchdog->start();
  watchdog->finishWithoutCallback();

  watchdog->handleTimeout();

  EXPECT_EQ(timeouts_, 0);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, TakesATimeoutOnceWhileRunning) {
  const auto watchdog = make(5.0);
  watchdog->start();

  watchdog->handleTimeout();
  watchdog->handleTimeout();
  simulation_.advance(1h);

  EXPECT_EQ(timeouts_, 1);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, CallsBackWithoutItsLock) {
  std::shared_ptr<ProxyTunnelHandshakeWatchdog> watchdog;
  watchdog = std::make_shared<ProxyTunnelHandshakeWatchdog>(simulation_, 1.0, queue_, [&] {
    // Takes the lock, as the close of a tunnel does.
    watchdog->finishWithoutCallback();
    ++timeouts_;
  });
  watchdog->start();

  simulation_.advance(1s);

  EXPECT_EQ(timeouts_, 1);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, DoesNothingOnceItIsGone) {
  auto watchdog = make(5.0);
  watchdog->start();

  watchdog.reset();
  simulation_.advance(1h);

  EXPECT_EQ(timeouts_, 0);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, DoesNothingInATimerThatOutlivesIt) {
  test::NotingPlatform platform(simulation_);
  platform.keepTimers();
  auto watchdog = std::make_shared<ProxyTunnelHandshakeWatchdog>(platform, 5.0, queue_,
                                                                 [this] { ++timeouts_; });
  watchdog->start();

  watchdog.reset();
  simulation_.advance(1h);

  EXPECT_EQ(timeouts_, 0);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, DoesNothingInAnExpirationThatWasDueWhenItFinished) {
  test::NotingPlatform platform(simulation_);
  const auto watchdog = std::make_shared<ProxyTunnelHandshakeWatchdog>(platform, 5.0, queue_,
                                                                       [this] { ++timeouts_; });
  watchdog->start();
  watchdog->finishWithoutCallback();

  platform.expire();

  EXPECT_EQ(timeouts_, 0);
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, IsNotKeptAliveByItsTimer) {
  auto watchdog = make(5.0);
  const std::weak_ptr<ProxyTunnelHandshakeWatchdog> weakWatchdog = watchdog;
  watchdog->start();

  watchdog.reset();

  EXPECT_TRUE(weakWatchdog.expired());
}

// The tunnel that owns it may live for a long time.
TEST_F(ProxyTunnelHandshakeWatchdogTest, KeepsNothingOnceItHasEnded) {
  for (const bool timesOut : {false, true}) {
    const auto queue = simulation_.makeQueue("short", platform::DispatchQueueKind::serial);
    const auto owned = std::make_shared<int>();
    const auto watchdog = std::make_shared<ProxyTunnelHandshakeWatchdog>(simulation_, 5.0, queue,
                                                                         [owned] { ++*owned; });
    watchdog->start();
    EXPECT_EQ(owned.use_count(), 2);
    if (timesOut) {
      simulation_.advance(5s);
    } else {
      watchdog->finishWithoutCallback();
    }
    EXPECT_EQ(owned.use_count(), 1) << timesOut;
    EXPECT_EQ(queue.use_count(), 1) << timesOut;
    EXPECT_EQ(*owned, timesOut ? 1 : 0);
  }
}

TEST_F(ProxyTunnelHandshakeWatchdogTest, TakesAVeryLongTimeout) {
  const auto watchdog = make(std::numeric_limits<double>::infinity());
  watchdog->start();

  simulation_.advance(24h * 365);
  EXPECT_EQ(timeouts_, 0);

  // It is running.
  watchdog->handleTimeout();
  EXPECT_EQ(timeouts_, 1);
}

// The calls to the timers.
class WatchdogTimer : public ProxyTunnelHandshakeWatchdogTest {
 protected:
  void SetUp() override {
    watchdog_->start();
    started_ = platform_.notes();
    platform_.clearNotes();
  }

  test::NotingPlatform platform_{simulation_};
  std::shared_ptr<ProxyTunnelHandshakeWatchdog> watchdog_ =
      std::make_shared<ProxyTunnelHandshakeWatchdog>(platform_, 5.0, queue_, [] {});
  Lines started_;
};

TEST_F(WatchdogTimer, IsScheduledOnceWithoutLeeway) {
  EXPECT_EQ(started_, (Lines{"timer 1 on watchdog", "timer 1 schedule 5000 never 0",
                             "timer 1 handler", "timer 1 resume"}));
}

TEST_F(WatchdogTimer, LosesItsHandlerAndIsCancelledByTheFinish) {
  watchdog_->finishWithoutCallback();

  EXPECT_EQ(platform_.notes(), (Lines{"timer 1 handler", "timer 1 cancel"}));
}

TEST_F(WatchdogTimer, LosesItsHandlerAndIsCancelledByTheTimeout) {
  simulation_.advance(5s);

  EXPECT_EQ(platform_.notes(), (Lines{"timer 1 handler", "timer 1 cancel"}));
}

TEST_F(WatchdogTimer, OfASecondStartIsNeverResumed) {
  watchdog_->start();

  EXPECT_EQ(platform_.notes(), (Lines{"timer 2 on watchdog", "timer 2 schedule 5000 never 0",
                                      "timer 2 handler", "timer 2 handler", "timer 2 cancel"}));
}

TEST_F(WatchdogTimer, IsLeftAloneByASecondFinish) {
  watchdog_->finishWithoutCallback();
  platform_.clearNotes();

  watchdog_->finishWithoutCallback();

  EXPECT_EQ(platform_.notes(), Lines{});
}

TEST(ProxyTunnelHandshakeWatchdogLeeway, IsNone) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    simulation::SimulationOptions options;
    options.order = simulation::RunOrder::seeded;
    options.seed = seed;
    simulation::Simulation simulation(options);
    bool timedOut = false;
    const auto watchdog = std::make_shared<ProxyTunnelHandshakeWatchdog>(
        simulation, 5.0, simulation.makeQueue("watchdog", platform::DispatchQueueKind::serial),
        [&timedOut] { timedOut = true; });
    watchdog->start();

    EXPECT_TRUE(simulation.runUntil([&timedOut] { return timedOut; }, 5s)) << "seed " << seed;
  }
}

class WatchdogWithoutTime : public ProxyTunnelHandshakeWatchdogTest,
                            public testing::WithParamInterface<double> {};

TEST_P(WatchdogWithoutTime, TimesOutInsideStartAndStaysIdle) {
  const auto watchdog = make(GetParam());

  watchdog->start();
  EXPECT_EQ(timeouts_, 1);

  // Only a running one takes a time-out.
  watchdog->handleTimeout();
  EXPECT_EQ(timeouts_, 1);
}

TEST_P(WatchdogWithoutTime, TimesOutInsideEveryStart) {
  const auto watchdog = make(GetParam());

  watchdog->start();
  watchdog->start();

  EXPECT_EQ(timeouts_, 2);
}

INSTANTIATE_TEST_SUITE_P(Timeouts, WatchdogWithoutTime,
                         testing::Values(0.0, -0.0, -1.0, std::numeric_limits<double>::quiet_NaN(),
                                         -std::numeric_limits<double>::infinity()));

}  // namespace
}  // namespace ostravel
