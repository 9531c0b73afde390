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

// Keeps the service's thread busy until it is released, so that no alarm expires before.
class BusyService {
 public:
  explicit BusyService(TimerService& service) {
    std::promise<void> isBusy;
    service.set(Clock::now(), [&isBusy, released = released_.get_future().share()] {
      isBusy.set_value();
      released.wait();
    });
    isBusy.get_future().wait();
  }

  void release() { released_.set_value(); }

 private:
  std::promise<void> released_;
};

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
  BusyService busy(service);
  const auto time = Clock::now() + 20ms;
  service.set(time + 1ms, [&order] { order.push_back(3); });
  service.set(time, [&order] { order.push_back(1); });
  service.set(time, [&order] { order.push_back(2); });
  service.set(time + 2ms, [&expired] { expired.set_value(); });
  busy.release();
  expired.get_future().get();
  EXPECT_EQ(order, (std::vector{1, 2, 3}));
}

TEST(TimerServiceTest, ACancelledAlarmDoesNotExpireAndIsDestroyed) {
  TimerService service;
  std::promise<void> expired;
  const auto held = std::make_shared<int>(0);
  BusyService busy(service);
  const auto time = Clock::now() + 5ms;
  const auto alarm = service.set(time, [held] { FAIL(); });
  service.cancel(alarm);
  EXPECT_EQ(held.use_count(), 1);
  service.set(time, [&expired] { expired.set_value(); });
  busy.release();
  expired.get_future().get();
}

TEST(TimerServiceTest, OtherAlarmsExpireAfterTheNextOneIsCancelled) {
  TimerService service;
  std::promise<void> expired;
  // The service sleeps until its time, and on a busy machine until later.
  const auto alarm = service.set(Clock::now() + 20ms, [] {});
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
