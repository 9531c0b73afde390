#include "Companion/Fleet/FleetPublisher.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Tests/Companion/Fleet/FleetReceiver.h"
#include "Tests/Companion/Fleet/FleetSamples.h"
#include "Tests/Companion/Fleet/NATSServer.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::companion::test {
namespace {

using namespace std::chrono_literals;

class FleetPublisherTest : public ::testing::Test {
 protected:
  FleetPublisher::Options options() {
    return {.server = {.url = server_.url()},
            .folder = folder_.path("spool"),
            .report = [this](const std::string& text) { reports_.add(text); },
            .patience = 300ms};
  }

  void startPublisher() {
    publisher_.reset();
    publisher_ = std::make_unique<FleetPublisher>(options());
  }

  void publish(int first, int last) {
    for (int number = first; number <= last; ++number) {
      publisher_->publish(messageNumber(number));
    }
  }

  // Each of the first messages is in the stream exactly once.
  void expectStored(int count) {
    FleetReceiver receiver(server_.url());
    receiver.waitFor(static_cast<std::size_t>(count));
    std::set<std::string> ids;
    for (const FleetMessage& message : receiver.messages()) {
      ids.insert(message.id);
    }
    for (int number = 1; number <= count; ++number) {
      EXPECT_TRUE(ids.contains(messageNumber(number).id)) << number;
    }
    EXPECT_EQ(server_.storedMessages(), static_cast<std::uint64_t>(count));
  }

  void waitUntilAcknowledged() const {
    while (publisher_->counts().waiting > 0) {
      std::this_thread::sleep_for(2ms);
    }
  }

  NATSServer server_;
  const testing::TemporaryFolder folder_;
  ReportList reports_;
  std::unique_ptr<FleetPublisher> publisher_;
};

TEST_F(FleetPublisherTest, StoresEachMessageOnce) {
  constexpr int kCount = 5000;
  server_.start();
  startPublisher();
  publish(1, kCount);
  FleetReceiver receiver(server_.url());
  receiver.waitFor(kCount);
  // On a busy machine some are sent again, after later ones.
  std::map<std::string, FleetMessage> received;
  for (const FleetMessage& message : receiver.messages()) {
    received.emplace(message.id, message);
  }
  for (int number = 1; number <= kCount; ++number) {
    const FleetMessage sent = messageNumber(number);
    EXPECT_EQ(received[sent.id], sent) << number;
  }
  waitUntilAcknowledged();
  EXPECT_EQ(server_.storedMessages(), static_cast<std::uint64_t>(kCount));
  EXPECT_EQ(publisher_->counts().dropped, 0U);
}

TEST_F(FleetPublisherTest, KeepsMessagesWhileThereIsNoServer) {
  server_.choosePort();
  startPublisher();
  publish(1, 100);
  reports_.waitFor("cannot reach " + server_.url());
  EXPECT_EQ(publisher_->counts().waiting, 100U);
  server_.start();
  waitUntilAcknowledged();
  expectStored(100);
}

TEST_F(FleetPublisherTest, SendsWaitingMessagesInTheNextRun) {
  server_.choosePort();
  startPublisher();
  publish(1, 100);
  startPublisher();
  EXPECT_EQ(publisher_->counts().waiting, 100U);
  publish(101, 200);
  server_.start();
  waitUntilAcknowledged();
  expectStored(200);
}

TEST_F(FleetPublisherTest, LosesNothingWhenTheServerIsKilledUnderLoad) {
  server_.start();
  startPublisher();
  constexpr int kRounds = 4;
  constexpr int kInRound = 3000;
  for (int round = 0; round < kRounds; ++round) {
    std::thread load([this, round] {
      for (int number = 1; number <= kInRound; ++number) {
        publisher_->publish(messageNumber(round * kInRound + number));
        if (number % 100 == 0) {
          std::this_thread::sleep_for(1ms);
        }
      }
    });
    // In the middle: some are stored, some are in flight.
    FleetReceiver(server_.url()).waitFor(static_cast<std::size_t>(round * kInRound + 500));
    server_.kill();
    load.join();
    if (round % 2 == 1) {
      startPublisher();
    }
    server_.start();
  }
  waitUntilAcknowledged();
  expectStored(kRounds * kInRound);
  EXPECT_EQ(publisher_->counts().dropped, 0U);
}

// The machines of a fleet. Each publisher has a connection, a thread and a spool, as a machine's
// has, and sends the events of ten machines: three threads more for each of a thousand connections
// would test the scheduler.
class FleetOfMachines {
 public:
  static constexpr int kPublishers = 100;
  static constexpr int kMachines = 1000;

  explicit FleetOfMachines(std::function<FleetPublisher::Options(int number)> options)
      : options_(std::move(options)), publishers_(kPublishers) {
    for (int number = 0; number < kPublishers; ++number) {
      restart(number);
    }
  }

  // The monitor of its machines ends, and starts again with the same spool.
  void restart(int number) {
    auto& publisher = publishers_[static_cast<std::size_t>(number)];
    publisher.reset();
    publisher = std::make_unique<FleetPublisher>(options_(number));
  }

  // One event of each machine.
  void publish(int number) {
    for (int machine = 0; machine < kMachines; ++machine) {
      const FleetMessage message = messageNumber(number, "machine-" + std::to_string(machine));
      publishers_[static_cast<std::size_t>(machine % kPublishers)]->publish(message);
      sent_.emplace(message.id, message);
    }
  }

  // By identifier.
  const std::map<std::string, FleetMessage>& sent() const { return sent_; }

  FleetPublisher::Counts counts() const {
    FleetPublisher::Counts sum;
    for (const auto& publisher : publishers_) {
      const FleetPublisher::Counts counts = publisher->counts();
      sum.waiting += counts.waiting;
      sum.dropped += counts.dropped;
    }
    return sum;
  }

 private:
  const std::function<FleetPublisher::Options(int number)> options_;
  std::vector<std::unique_ptr<FleetPublisher>> publishers_;
  std::map<std::string, FleetMessage> sent_;
};

TEST_F(FleetPublisherTest, StoresOnceWhatAThousandMachinesSendDuringKills) {
  server_.start();
  FleetOfMachines fleet([this](int number) {
    return FleetPublisher::Options{.server = {.url = server_.url()},
                                   .folder = folder_.path("spool" + std::to_string(number))};
  });
  constexpr int kRounds = 2;
  constexpr int kInRound = 4;
  for (int round = 0; round < kRounds; ++round) {
    std::thread load([&fleet, round] {
      for (int number = 1; number <= kInRound; ++number) {
        fleet.publish(round * kInRound + number);
      }
    });
    // In the middle: some are stored, some are in flight.
    const std::size_t before =
        static_cast<std::size_t>(round) * kInRound * FleetOfMachines::kMachines;
    FleetReceiver(server_.url()).waitFor(before + FleetOfMachines::kMachines / 2);
    server_.kill();
    load.join();
    for (int number = round; number < FleetOfMachines::kPublishers; number += 10) {
      fleet.restart(number);
    }
    server_.start();
    while (fleet.counts().waiting > 0) {
      std::this_thread::sleep_for(2ms);
    }
  }
  EXPECT_EQ(fleet.counts().dropped, 0U);
  // Each is there, and none twice, because there are no more.
  FleetReceiver receiver(server_.url());
  receiver.waitFor(fleet.sent().size());
  std::map<std::string, FleetMessage> received;
  for (const FleetMessage& message : receiver.messages()) {
    received.emplace(message.id, message);
  }
  EXPECT_EQ(received, fleet.sent());
  EXPECT_EQ(server_.storedMessages(), fleet.sent().size());
}

TEST_F(FleetPublisherTest, ResendsWhatAHungServerDoesNotAcknowledge) {
  server_.start();
  startPublisher();
  publish(1, 10);
  waitUntilAcknowledged();
  server_.suspend();
  publish(11, 3000);
  // More than once.
  std::this_thread::sleep_for(1s);
  EXPECT_GT(publisher_->counts().waiting, 0U);
  server_.resume();
  waitUntilAcknowledged();
  expectStored(3000);
}

TEST_F(FleetPublisherTest, DropsAndCountsWhatTheServerNeverAccepts) {
  server_.start();
  startPublisher();
  FleetMessage large = messageNumber(1);
  // More than the server accepts in one message.
  large.json = std::string(std::size_t{1100} * 1024, 'x');
  publisher_->publish(large);
  publisher_->publish(messageNumber(2));
  waitUntilAcknowledged();
  EXPECT_EQ(publisher_->counts().dropped, 1U);
  EXPECT_EQ(server_.storedMessages(), 1U);
  reports_.waitFor("events dropped: 1");
}

// As while the disk hangs.
TEST_F(FleetPublisherTest, DropsAndCountsWhatItsStuckThreadCannotTake) {
  server_.choosePort();
  std::promise<void> isStuck;
  std::promise<void> mayContinue;
  FleetPublisher::Options options = this->options();
  options.report = [&, isFirst = true](const std::string& text) mutable {
    reports_.add(text);
    if (std::exchange(isFirst, false)) {
      isStuck.set_value();
      mayContinue.get_future().wait();
    }
  };
  publisher_ = std::make_unique<FleetPublisher>(options);
  isStuck.get_future().wait();
  // 16 MiB, of which a message needs slightly more than its text.
  constexpr std::size_t kTaken = 15;
  constexpr std::size_t kFurther = 5;
  for (std::size_t number = 0; number < kTaken + kFurther; ++number) {
    FleetMessage message = messageNumber(static_cast<int>(number));
    message.json = std::string(std::size_t{1024} * 1024, 'x');
    publisher_->publish(message);
  }
  const auto expectCounts = [&] {
    EXPECT_EQ(publisher_->counts().waiting, kTaken);
    EXPECT_EQ(publisher_->counts().dropped, kFurther);
  };
  expectCounts();
  mayContinue.set_value();
  reports_.waitFor("events dropped: 5");
  expectCounts();
  publisher_.reset();
}

TEST_F(FleetPublisherTest, ReportsAServerWithoutJetStream) {
  server_.startWithoutJetStream();
  startPublisher();
  publish(1, 1);
  reports_.waitFor(server_.url() + " has no stream");
  EXPECT_EQ(publisher_->counts().waiting, 1U);
}

TEST_F(FleetPublisherTest, NeedsAFolder) {
  server_.choosePort();
  FleetPublisher::Options options = this->options();
  options.folder = folder_.path("missing/folder");
  EXPECT_THROW(FleetPublisher{options}, std::runtime_error);
}

}  // namespace
}  // namespace ostravel::companion::test
