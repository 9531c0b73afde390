#include "Companion/Fleet/FleetPublisher.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

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

TEST_F(FleetPublisherTest, ResendsWhatAHungServerDoesNotAcknowledge) {
  server_.start();
  startPublisher();
  publish(1, 10);
  waitUntilAcknowledged();
  server_.signal(SIGSTOP);
  publish(11, 3000);
  // More than once.
  std::this_thread::sleep_for(1s);
  EXPECT_GT(publisher_->counts().waiting, 0U);
  server_.signal(SIGCONT);
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
