#include "Platform/Shared/StateObservers.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

namespace ostravel::platform {
namespace {

class UnusedConnection final : public TCPConnection {
 public:
  TCPConnectionState state() const override { return TCPConnectionState::connecting; }
  OptionalError error() const override { return std::nullopt; }
  void addObserver(std::weak_ptr<KeyValueObserver> /*observer*/,
                   std::string_view /*keyPath*/) override {}
  void removeObserver(KeyValueObserver& /*observer*/, std::string_view /*keyPath*/) override {}
  void read(std::size_t /*minimum*/, std::size_t /*maximum*/,
            ReadCompletion /*completion*/) override {}
  void write(Data /*data*/, ErrorCompletion /*completion*/) override {}
  void cancel() override {}
};

class CountingObserver final : public KeyValueObserver {
 public:
  void observeValue(std::optional<std::string_view> keyPath, Observable* object) override {
    EXPECT_EQ(keyPath, "state");
    lastObject = object;
    ++count;
    if (onChange) {
      onChange();
    }
  }

  int count = 0;
  Observable* lastObject = nullptr;
  std::function<void()> onChange;
};

class StateObserversTest : public ::testing::Test {
 protected:
  UnusedConnection connection_;
  StateObservers observers_;
  std::shared_ptr<CountingObserver> first_ = std::make_shared<CountingObserver>();
  std::shared_ptr<CountingObserver> second_ = std::make_shared<CountingObserver>();
};

TEST_F(StateObserversTest, NotifiesEachObserverOfEachChange) {
  EXPECT_FALSE(observers_.add(first_));
  EXPECT_FALSE(observers_.add(second_));
  observers_.notify(connection_);
  observers_.notify(connection_);
  EXPECT_EQ(first_->count, 2);
  EXPECT_EQ(second_->count, 2);
  EXPECT_EQ(first_->lastObject, &connection_);
}

TEST_F(StateObserversTest, ARemovedObserverIsNotNotified) {
  EXPECT_FALSE(observers_.add(first_));
  EXPECT_FALSE(observers_.add(second_));
  observers_.remove(*first_);
  observers_.notify(connection_);
  EXPECT_EQ(first_->count, 0);
  EXPECT_EQ(second_->count, 1);
  EXPECT_EQ(observers_.count(), 1U);
}

TEST_F(StateObserversTest, RemovingAnUnknownObserverHasNoEffect) {
  observers_.remove(*first_);
  EXPECT_FALSE(observers_.add(first_));
  observers_.remove(*second_);
  EXPECT_EQ(observers_.count(), 1U);
  observers_.remove(*first_);
  observers_.remove(*first_);
  EXPECT_EQ(observers_.count(), 0U);
}

TEST_F(StateObserversTest, AnObserverMayRemoveItselfAndTheNext) {
  EXPECT_FALSE(observers_.add(first_));
  EXPECT_FALSE(observers_.add(second_));
  first_->onChange = [this] {
    observers_.remove(*first_);
    observers_.remove(*second_);
  };
  observers_.notify(connection_);
  EXPECT_EQ(first_->count, 1);
  EXPECT_EQ(second_->count, 0);
}

TEST_F(StateObserversTest, ADestroyedObserverIsNeitherHeldNorNotified) {
  EXPECT_FALSE(observers_.add(first_));
  const std::weak_ptr<CountingObserver> weakFirst = first_;
  first_.reset();
  EXPECT_TRUE(weakFirst.expired());
  observers_.notify(connection_);
}

TEST_F(StateObserversTest, ADestroyedObserverIsForgottenWhenAnotherComes) {
  EXPECT_FALSE(observers_.add(first_));
  first_.reset();
  EXPECT_FALSE(observers_.add(second_));
  EXPECT_EQ(observers_.count(), 1U);
}

TEST_F(StateObserversTest, AnObserverCanRemoveItselfWhileItIsDestroyed) {
  struct Leaving final : KeyValueObserver {
    explicit Leaving(StateObservers& observers) : observers_(observers) {}
    ~Leaving() override { observers_.remove(*this); }
    void observeValue(std::optional<std::string_view> /*keyPath*/,
                      Observable* /*object*/) override {}
    StateObservers& observers_;
  };
  auto leaving = std::make_shared<Leaving>(observers_);
  EXPECT_FALSE(observers_.add(leaving));
  leaving.reset();
  EXPECT_EQ(observers_.count(), 0U);
}

TEST_F(StateObserversTest, TheNextObserverIsNotifiedOfAMissedChangeOnce) {
  observers_.notify(connection_);
  observers_.notify(connection_);
  EXPECT_TRUE(observers_.add(first_));
  EXPECT_EQ(first_->count, 0);
  observers_.notifyOfMissedChange(connection_);
  EXPECT_EQ(first_->count, 1);
  observers_.notifyOfMissedChange(connection_);
  EXPECT_EQ(first_->count, 1);
  EXPECT_FALSE(observers_.add(second_));
}

TEST_F(StateObserversTest, ALaterChangeReplacesAMissedOne) {
  observers_.notify(connection_);
  EXPECT_TRUE(observers_.add(first_));
  observers_.notify(connection_);
  observers_.notifyOfMissedChange(connection_);
  EXPECT_EQ(first_->count, 1);
}

TEST_F(StateObserversTest, AMissedChangeWaitsForAnObserverThatStays) {
  observers_.notify(connection_);
  EXPECT_TRUE(observers_.add(first_));
  observers_.remove(*first_);
  observers_.notifyOfMissedChange(connection_);
  EXPECT_TRUE(observers_.add(second_));
  observers_.notifyOfMissedChange(connection_);
  EXPECT_EQ(first_->count, 0);
  EXPECT_EQ(second_->count, 1);
}

TEST_F(StateObserversTest, AChangeThatOnlyDestroyedObserversSawIsMissed) {
  EXPECT_FALSE(observers_.add(first_));
  first_.reset();
  observers_.notify(connection_);
  EXPECT_TRUE(observers_.add(second_));
}

TEST_F(StateObserversTest, ObserversComeAndGoDuringNotifications) {
  constexpr int kRounds = 2000;
  std::thread notifier([this] {
    for (int round = 0; round < kRounds; ++round) {
      observers_.notify(connection_);
    }
  });
  for (int round = 0; round < kRounds; ++round) {
    static_cast<void>(observers_.add(second_));
    observers_.remove(*second_);
  }
  notifier.join();
  EXPECT_EQ(observers_.count(), 0U);
}

}  // namespace
}  // namespace ostravel::platform
