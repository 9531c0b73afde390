#include "Platform/Linux/Interception/QueuedPacket.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <utility>

#include "Platform/Linux/Identity/ProxyProcess.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

constexpr auto kGenerous = 20s;

// An application's first packet, held in a queue.
class QueuedPacketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto packets = testing::waitForPackets(*queue_, kGenerous);
    ASSERT_EQ(packets.size(), 1U);
    received_.id = packets[0].id;
    received_.mark = packets[0].mark;
  }
  std::unique_ptr<QueuedPacket> hold(std::optional<ProxyInstance> proxy = std::nullopt) {
    return std::make_unique<QueuedPacket>(queue_, PacketMarks(), received_, user_,
                                          std::move(proxy));
  }
  // Nothing listens on its port any more.
  static ProxyInstance endedProxy() {
    auto diagnostics = SocketDiagnostics::open();
    return ProxyInstance(std::make_shared<ProxyInstance::Port>(
        *std::move(diagnostics), ProxyProcess::addressOf(testing::closedPort())));
  }

  const std::shared_ptr<PacketQueue> queue_ = *PacketQueue::open();
  const std::unique_ptr<InterceptionTable> table_ =
      *InterceptionTable::install(testing::loopbackSettings(), PacketMarks(), queue_->number(), {});
  const Reference<UserShare> user_ = makeReference<UserShare>();
  testing::TestListener origin_{"127.0.0.1", 8000};
  const testing::Connecting application_{"127.0.0.1", 8000};
  PacketQueue::Packet received_;
};

TEST_F(QueuedPacketTest, CountsForItsUserUntilTheFirstVerdict) {
  const auto packet = hold();
  EXPECT_EQ(user_->held(), 1U);
  packet->accept();
  EXPECT_EQ(user_->held(), 0U);
  packet->accept();
  packet->refuse();
  EXPECT_EQ(user_->held(), 0U);
  EXPECT_EQ(application_.connectResult(kGenerous), 0);
}

TEST_F(QueuedPacketTest, GoesUnchangedWhenDestroyed) {
  hold().reset();
  EXPECT_EQ(user_->held(), 0U);
  EXPECT_EQ(application_.connectResult(kGenerous), 0);
}

TEST_F(QueuedPacketTest, ARefusalIsAReset) {
  hold()->refuse();
  EXPECT_EQ(application_.connectResult(kGenerous), ECONNREFUSED);
}

TEST_F(QueuedPacketTest, IsNotRefusedAfterTheProxysEnd) {
  hold(endedProxy())->refuse();
  EXPECT_EQ(application_.connectResult(kGenerous), 0);
}

TEST_F(QueuedPacketTest, IsNotRedirectedAfterTheProxysEnd) {
  hold(endedProxy())->redirect(0);
  EXPECT_EQ(application_.connectResult(kGenerous), 0);
  EXPECT_EQ(origin_.acceptOne(kGenerous), application_.localPort());
}

TEST_F(QueuedPacketTest, DoesNothingWhenTheQueueHasReleasedIt) {
  const auto packet = hold();
  ASSERT_TRUE(queue_->accept(received_.id));
  packet->refuse();
  // The queue's owner ends the charge of what it releases.
  EXPECT_EQ(user_->held(), 1U);
  EXPECT_EQ(application_.connectResult(kGenerous), 0);
}

}  // namespace
}  // namespace ostravel::linuxplatform
