#include "Companion/Monitor/EventReceiver.h"

#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Base/LocalListener.h"
#include "Tests/Companion/Events/EventSamples.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::companion {
namespace {

using test::frame;
using test::kEvent;
using testing::TestSocket;
using namespace std::chrono_literals;

class EventReceiverTest : public ::testing::Test {
 protected:
  ~EventReceiverTest() override {
    ioContext_.stop();
    thread_.join();
  }

  void start(EventLimits limits = {}) {
    receiver_ = std::make_unique<EventReceiver>(
        ioContext_, socket_.descriptor(),
        [this](const ReceivedEvent& event) { add("event " + event.signal); },
        [this](std::string_view problem) { add("problem " + std::string(problem)); }, limits);
    thread_ = std::thread([this] { ioContext_.run(); });
  }

  TestSocket connect() const { return TestSocket::connectUnix(path_); }

  std::string waitForReport(std::size_t index) {
    std::unique_lock lock(mutex_);
    const bool came = changed_.wait_for(lock, 30s, [&] { return reports_.size() > index; });
    return came ? reports_[index] : "nothing came";
  }

 private:
  void add(const std::string& report) {
    const std::lock_guard lock(mutex_);
    reports_.push_back(report);
    changed_.notify_all();
  }

  const testing::TemporaryFolder folder_;
  const std::string path_ = folder_.path("s");
  const LocalListener socket_{path_};
  asio::io_context ioContext_;
  std::unique_ptr<EventReceiver> receiver_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> reports_;
};

TEST_F(EventReceiverTest, DropsAndReportsAConnectionThatStalls) {
  start({.frame = 50ms});
  const TestSocket sender = connect();
  sender.send(frame(kEvent).substr(0, 100));
  EXPECT_EQ(waitForReport(0), "problem the connection stalled before its frame was complete");
  EXPECT_NE(sender.waitForEnd(), TestSocket::End::reset);
}

TEST_F(EventReceiverTest, ShowsAnEventWhoseSenderStaysConnected) {
  start();
  const TestSocket sender = connect();
  sender.send(frame(kEvent));
  EXPECT_EQ(waitForReport(0), "event connect_handshake_succeeded");
}

TEST_F(EventReceiverTest, FindsBytesThatFollowLater) {
  start({.end = 20s});
  const TestSocket sender = connect();
  sender.send(frame(kEvent));
  sender.send("x");
  EXPECT_TRUE(waitForReport(0).starts_with("problem bytes follow the frame"));
}

TEST_F(EventReceiverTest, IsNotHeldUpByASlowSender) {
  start();
  const TestSocket slow = connect();
  slow.send(frame(kEvent).substr(0, 10));
  TestSocket quick = connect();
  quick.send(frame(test::kProviderStarted));
  quick.close();
  EXPECT_EQ(waitForReport(0), "event provider_started");
  slow.send(frame(kEvent).substr(10));
  EXPECT_EQ(waitForReport(1), "event connect_handshake_succeeded");
}

TEST_F(EventReceiverTest, ServesManyConnectionsAtOnce) {
  start();
  std::vector<TestSocket> senders;
  for (int index = 0; index < 200; ++index) {
    senders.push_back(connect());
    senders.back().send(frame(kEvent).substr(0, 3));
  }
  for (TestSocket& sender : senders) {
    sender.send(frame(kEvent).substr(3));
    sender.close();
  }
  EXPECT_EQ(waitForReport(199), "event connect_handshake_succeeded");
}

}  // namespace
}  // namespace ostravel::companion
