#include "Platform/Linux/Relay/Poller.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "Base/FileDescriptor.h"
#include "Tests/Platform/Linux/Relay/Support/ConnectedSockets.h"

namespace ostravel::linuxplatform::test {
namespace {

// The poller by itself, on the test's own thread.
class PollerTest : public ::testing::Test {
 protected:
  PollerTest() { watch_ = poller_.add(near()); }

  void turn() {
    poller_.wait(std::chrono::milliseconds::zero());
    for (const auto rank : {Poller::Rank::preferred, Poller::Rank::usual, Poller::Rank::ended}) {
      poller_.dispatch(rank);
    }
  }
  Task counting() {
    return [this] { ++runs_; };
  }
  int near() const { return ends_.near.get(); }
  void send(const std::string& bytes) const { ends_.send(bytes); }

  Poller poller_;
  ConnectedSockets ends_;
  Poller::Watch* watch_ = nullptr;
  int runs_ = 0;
};

TEST_F(PollerTest, RunsATaskOnceWhenDataArrives) {
  ASSERT_NE(watch_, nullptr);
  poller_.waitUntilReadable(*watch_, counting());
  turn();
  EXPECT_EQ(runs_, 0);
  send("x");
  turn();
  turn();
  EXPECT_EQ(runs_, 1);
}

// The kernel reports a change once, even if there is no wait for it yet.
TEST_F(PollerTest, RemembersEventsBeforeTheFirstWait) {
  send("x");
  turn();
  poller_.waitUntilReadable(*watch_, counting());
  EXPECT_TRUE(poller_.isReadingDue(*watch_));
  poller_.runDue(Poller::keyOf(*watch_));
  EXPECT_EQ(runs_, 1);
}

TEST_F(PollerTest, ForgetsEventsThatACallHasConsumed) {
  send("x");
  turn();
  watch_->readLess();
  poller_.waitUntilReadable(*watch_, counting());
  EXPECT_FALSE(poller_.isReadingDue(*watch_));
  send("y");
  turn();
  EXPECT_EQ(runs_, 1);
}

// Bytes and the end of the stream are one event. The receive of the bytes does not show that there
// is an end, and no other event follows.
TEST_F(PollerTest, AnEndReportedWithDataIsNotForgotten) {
  send("x");
  ASSERT_EQ(::shutdown(ends_.far.get(), SHUT_WR), 0);
  turn();
  watch_->readLess();
  poller_.waitUntilReadable(*watch_, counting());
  turn();
  EXPECT_TRUE(poller_.isReadingDue(*watch_));
}

TEST_F(PollerTest, ReportsRoomOnlyToThoseWhoWaitForIt) {
  send("x");
  turn();
  EXPECT_FALSE(poller_.isWritingDue(*watch_));
  poller_.waitUntilWritable(*watch_, near(), counting());
  turn();
  EXPECT_EQ(runs_, 1);
  watch_->noRoomToWrite();
  poller_.waitUntilWritable(*watch_, near(), counting());
  EXPECT_FALSE(poller_.isWritingDue(*watch_));
}

TEST_F(PollerTest, ACancelledWaitIsDestroyedWithoutRunning) {
  const auto held = std::make_shared<int>(0);
  poller_.waitUntilReadable(*watch_, [held, this] { ++runs_; });
  EXPECT_EQ(held.use_count(), 2);
  poller_.cancelWaits(*watch_);
  EXPECT_EQ(held.use_count(), 1);
  send("x");
  turn();
  EXPECT_EQ(runs_, 0);
}

class CountingClient final : public Poller::Client {
 public:
  void readable() override { ++reads_; }
  void writable() override { ++writes_; }

  int reads_ = 0;
  int writes_ = 0;
};

TEST_F(PollerTest, CallsAClientOnceForEachWait) {
  const auto client = std::make_shared<CountingClient>();
  Poller::setClient(*watch_, client);
  send("x");
  turn();
  EXPECT_EQ(client->reads_, 0);
  Poller::waitUntilReadable(*watch_);
  EXPECT_TRUE(poller_.isReadingDue(*watch_));
  poller_.runDue(Poller::keyOf(*watch_));
  send("y");
  turn();
  EXPECT_EQ(client->reads_, 1);
  EXPECT_EQ(client->writes_, 0);
  poller_.waitUntilWritable(*watch_, near());
  turn();
  turn();
  EXPECT_EQ(client->writes_, 1);
}

TEST_F(PollerTest, AClientWhoseWaitsAreCancelledIsNotCalled) {
  const auto client = std::make_shared<CountingClient>();
  Poller::setClient(*watch_, client);
  Poller::waitUntilReadable(*watch_);
  Poller::cancelWaits(*watch_);
  send("x");
  turn();
  EXPECT_EQ(client->reads_, 0);
  poller_.waitUntilReadable(*watch_, counting());
  poller_.runDue(Poller::keyOf(*watch_));
  EXPECT_EQ(client->reads_, 0);
  EXPECT_EQ(runs_, 1);
}

TEST_F(PollerTest, AClientIsNotKeptAlive) {
  auto client = std::make_shared<CountingClient>();
  const std::weak_ptr<CountingClient> gone = client;
  Poller::setClient(*watch_, client);
  Poller::waitUntilReadable(*watch_);
  client = nullptr;
  EXPECT_TRUE(gone.expired());
  send("x");
  turn();
  EXPECT_FALSE(poller_.isReadingDue(*watch_));
}

TEST_F(PollerTest, ATaskMayRemoveItsSocketAndTheNextOne) {
  const ConnectedSockets neighbours;
  Poller::Watch* const other = poller_.add(neighbours.near.get());
  const auto removeBoth = [this, other] {
    ++runs_;
    poller_.remove(*watch_);
    poller_.remove(*other);
  };
  poller_.waitUntilReadable(*watch_, removeBoth);
  poller_.waitUntilReadable(*other, removeBoth);
  send("x");
  neighbours.send("x");
  turn();
  EXPECT_EQ(runs_, 1);
}

// A descriptor that is shared with another process stays registered when it is closed here.
TEST_F(PollerTest, EventsOfARemovedSocketAreDropped) {
  poller_.remove(*watch_);
  const FileDescriptor duplicate(::dup(ends_.far.get()));
  Poller::Watch* const next = poller_.add(duplicate.get());
  ASSERT_EQ(next, watch_);
  poller_.waitUntilReadable(*next, counting());
  send("x");
  turn();
  EXPECT_EQ(runs_, 0);
}

TEST_F(PollerTest, ASocketRemovedFromOutsideIsSilent) {
  const auto held = std::make_shared<int>(0);
  poller_.waitUntilReadable(*watch_, [held, this] { ++runs_; });
  send("x");
  std::thread([this] { poller_.removeFromOutside(*watch_); }).join();
  turn();
  EXPECT_EQ(runs_, 0);
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(PollerTest, ThePreferredSocketGoesFirst) {
  const ConnectedSockets flows;
  Poller::Watch* const preferred = poller_.add(flows.near.get());
  poller_.prefer(*preferred);
  std::string order;
  poller_.waitUntilReadable(*watch_, [&order] { order += "o"; });
  poller_.waitUntilReadable(*preferred, [&order] { order += "p"; });
  send("x");
  flows.send("x");
  turn();
  EXPECT_EQ(order, "po");
}

// Even if the kernel reports the end first.
TEST_F(PollerTest, ASocketWhosePeerHasEndedGoesLast) {
  const ConnectedSockets living;
  Poller::Watch* const other = poller_.add(living.near.get());
  std::string order;
  poller_.waitUntilReadable(*watch_, [&order] { order += "e"; });
  poller_.waitUntilReadable(*other, [&order] { order += "o"; });
  ASSERT_EQ(::shutdown(ends_.far.get(), SHUT_WR), 0);
  living.send("x");
  turn();
  EXPECT_EQ(order, "oe");
}

TEST_F(PollerTest, AWakeUpEndsTheWait) {
  for (int round = 0; round < 3; ++round) {
    std::thread waking([this] { poller_.wake(); });
    poller_.wait(std::nullopt);
    waking.join();
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
