#include "Platform/Linux/Relay/LingeringSocket.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>

#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"

namespace ostravel::linuxplatform::test {
namespace {

class LingeringSocketTest : public RelayTest {
 protected:
  static void closeInOrder(LinuxTCPFlow& flow) {
    flow.closeRead(std::nullopt);
    flow.closeWrite(std::nullopt);
  }
  bool allClosed() {
    return eventually([this] { return budget_.inUse() == idle_; });
  }

  // Used by the listeners.
  const std::size_t idle_ = budget_.inUse();
};

TEST_F(LingeringSocketTest, UnreadBytesDoNotDestroySentData) {
  CarriedFlow carried = carryFlow();
  const std::string answer(200'000, 'a');
  EXPECT_FALSE(write(*carried.flow, answer));
  // Unread data, which would make the kernel answer a plain close with a reset.
  carried.application.send(std::string(100'000, 'u'));
  // In one turn of the loop, so that none of it is discarded before the socket is closed.
  onLoop([&] { closeInOrder(*carried.flow); });
  carried.flow.reset();
  const auto received = carried.application.receiveToEnd();
  EXPECT_EQ(received.bytes, answer);
  EXPECT_EQ(received.error, 0);
}

TEST_F(LingeringSocketTest, LateBytesDoNotDestroySentData) {
  CarriedFlow carried = carryFlow();
  const std::string answer(200'000, 'a');
  EXPECT_FALSE(write(*carried.flow, answer));
  closeInOrder(*carried.flow);
  carried.flow.reset();
  drain();
  carried.application.send(std::string(10 * 1024 * 1024, 'l'));
  EXPECT_TRUE(eventually([this] { return loop().counters().discardedBytes > 10'000'000; }));
  const auto received = carried.application.receiveToEnd();
  EXPECT_EQ(received.bytes, answer);
  EXPECT_EQ(received.error, 0);
}

TEST_F(LingeringSocketTest, EndsWithThePeersEnd) {
  // Otherwise it would end after the interval, which a busy machine may take for all the rest.
  constexpr int kAttempts = 5;
  bool isAtOnce = false;
  for (int attempt = 0; attempt < kAttempts && !isAtOnce; ++attempt) {
    CarriedFlow carried = carryFlow();
    const auto start = std::chrono::steady_clock::now();
    closeInOrder(*carried.flow);
    drain();
    EXPECT_EQ(budget_.inUse(), idle_ + 1);
    carried.application.close();
    EXPECT_TRUE(allClosed());
    isAtOnce = std::chrono::steady_clock::now() - start < limits::kLingerInterval;
  }
  EXPECT_TRUE(isAtOnce);
}

TEST_F(LingeringSocketTest, EndsWithThePeersReset) {
  CarriedFlow carried = carryFlow();
  closeInOrder(*carried.flow);
  drain();
  carried.application.reset();
  EXPECT_TRUE(allClosed());
}

TEST_F(LingeringSocketTest, DoesNotLingerAfterThePeersEnd) {
  CarriedFlow carried = carryFlow();
  carried.application.endSending();
  EXPECT_TRUE(read(*carried.flow).isEnd());
  EXPECT_FALSE(write(*carried.flow, "answer"));
  closeInOrder(*carried.flow);
  drain();
  EXPECT_EQ(budget_.inUse(), idle_);
  EXPECT_EQ(carried.application.receiveToEnd().bytes, "answer");
}

TEST_F(LingeringSocketTest, WaitsIdlyUntilEverythingIsAcknowledged) {
  CarriedFlow carried = carryFlow();
  closeInOrder(*carried.flow);
  drain();
  const auto start = std::chrono::steady_clock::now();
  const Activity activity = activityWithin(300ms);
  EXPECT_EQ(activity.wakeups, 0U);
  EXPECT_LT(activity.cpuTime, 20ms);
  EXPECT_EQ(budget_.inUse(), idle_ + 1);
  EXPECT_TRUE(allClosed());
  EXPECT_GE(std::chrono::steady_clock::now() - start, limits::kLingerInterval - 100ms);
}

TEST_F(LingeringSocketTest, WaitsLongerForAPeerThatHasNotReadEverything) {
  Connected connected = connect();
  std::size_t acknowledged = 0;
  auto stalled = writeUntilStalled(*connected.connection, acknowledged);
  connected.connection->cancel();
  EXPECT_TRUE(waitFor(std::move(stalled)));
  connected.connection.reset();
  const std::uint64_t before = onLoop([this] { return loop().counters().wakeups; });
  // The first check finds unacknowledged bytes.
  EXPECT_TRUE(eventually([&] { return loop().counters().wakeups > before; }));
  EXPECT_EQ(budget_.inUse(), idle_ + 1);
  const auto received = connected.server.receiveToEnd();
  EXPECT_GE(received.bytes.size(), acknowledged);
  EXPECT_EQ(received.error, 0);
  EXPECT_TRUE(allClosed());
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
