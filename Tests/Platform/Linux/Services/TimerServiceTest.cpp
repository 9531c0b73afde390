#include "Platform/Linux/Services/TimerService.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <vector>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using Clock = TimerService::Clock;

TEST(TimerServiceTest, AnAlarmExpiresAtItsTimeAndNotBefore) {
  TimerService service;
  std::promise<Clock::time_point> expired;
  const auto time = Clock::now() + 20ms;
  service.set(time, [&expired] { expired.set_value(Clock::now()); });
  EXPECT_GE(expired.get_future().get(), time);
}

TEST(TimerServiceTest, AnAlarmInThePastExpires) {
  TimerService service;
  std::promise<void> expired;
  service.set(Clock::now() - 1h, [&expired] { expired.set_value(); });
  expired.get_future().get();
}

TEST(TimerServiceTest, AnEarlierAlarmDoesNotWaitForALaterOne) {
  TimerService service;
  std::promise<void> expired;
  service.set(Clock::time_point::max() - 24h, [] { FAIL(); });
  service.set(Clock::now() + 1h, [] { FAIL(); });
  service.set(Clock::now(), [&expired] { expired.set_value(); });
  expired.get_future().get();
}

TEST(TimerServiceTest, AlarmsExpireInOrderOfTimeThenOfSetting) {
  TimerService service;
  std::vector<int> order;
  std::promise<void> expired;
  const auto time = Clock::now() + 20ms;
  service.set(time + 1ms, [&order] { order.push_back(3); });
  service.set(time, [&order] { order.push_back(1); });
  service.set(time, [&order] { order.push_back(2); });
  service.set(time + 2ms, [&expired] { expired.set_value(); });
  expired.get_future().get();
  EXPECT_EQ(order, (std::vector{1, 2, 3}));
}

TEST(TimerServiceTest, ACancelledAlarmDoesNotExpireAndIsDestroyed) {
  TimerService service;
  std::promise<void> expired;
  const auto held = std::make_shared<int>(0);
  const auto time = Clock::now() + 50ms;
  const auto alarm = service.set(time, [held] { FAIL(); });
  service.cancel(alarm);
  EXPECT_EQ(held.use_count(), 1);
  service.set(time, [&expired] { expired.set_value(); });
  expired.get_future().get();
}

TEST(TimerServiceTest, OtherAlarmsExpireAfterTheNextOneIsCancelled) {
  TimerService service;
  std::promise<void> expired;
  const auto alarm = service.set(Clock::now() + 20ms, [] { FAIL(); });
  service.set(Clock::now() + 40ms, [&expired] { expired.set_value(); });
  service.cancel(alarm);
  expired.get_future().get();
}

TEST(TimerServiceTest, AnAlarmMaySetAndCancelOthers) {
  TimerService service;
  std::promise<void> expired;
  const auto other = service.set(Clock::now() + 1h, [] { FAIL(); });
  service.set(Clock::now(), [&] {
    service.cancel(other);
    service.set(Clock::now(), [&expired] { expired.set_value(); });
  });
  expired.get_future().get();
}

TEST(TimerServiceTest, CancellingAnExpiredAlarmDoesNothing) {
  TimerService service;
  std::promise<void> expired;
  const auto alarm = service.set(Clock::now(), [&expired] { expired.set_value(); });
  expired.get_future().get();
  service.cancel(alarm);
}

TEST(TimerServiceTest, NothingExpiresAfterStop) {
  TimerService service;
  const auto held = std::make_shared<int>(0);
  service.set(Clock::now() + 1h, [held] { FAIL(); });
  service.stop();
  service.set(Clock::now(), [held] { FAIL(); });
  service.stop();
  EXPECT_EQ(held.use_count(), 3);
}

}  // namespace
}  // namespace ostravel::linuxplatform
