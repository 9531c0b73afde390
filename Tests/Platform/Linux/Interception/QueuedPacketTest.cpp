#include "Platform/Linux/Interception/QueuedPacket.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/Linux/Identity/ProxyProcess.h"
#include "Platform/Linux/Kernel/PacketResender.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

constexpr auto kGenerous = 20s;

// An application's first packet, held in a queue.
class QueuedPacketTest : public ::testing::Test {
 protected:
  using OfferPoint = InterceptionTable::OfferPoint;

  explicit QueuedPacketTest(OfferPoint offerPoint = OfferPoint::beforeFilters)
      : table_(*InterceptionTable::install(testing::loopbackSettings(), PacketMarks(),
                                           queue_->number(), {{loop_.port(), 0}}, offerPoint)) {}

  void SetUp() override {
    offered_ = testing::waitForPackets(*queue_, kGenerous);
    ASSERT_EQ(offered_.size(), 1U);
    received_.id = offered_[0].id;
    received_.mark = offered_[0].mark;
    received_.bytes = offered_[0].bytes;
  }
  std::unique_ptr<QueuedPacket> hold(std::optional<ProxyInstance> proxy = std::nullopt,
                                     std::shared_ptr<const PacketResender> resender = nullptr) {
    return std::make_unique<QueuedPacket>(queue_, PacketMarks(), received_, user_, std::move(proxy),
                                          std::move(resender));
  }
  void expectArrivalAtTheLoop() {
    EXPECT_EQ(user_->held(), 0U);
    EXPECT_EQ(application_.connectResult(kGenerous), 0);
    EXPECT_EQ(loop_.acceptOne(kGenerous), application_.localPort());
  }
  // Nothing listens on its port any more.
  static ProxyInstance endedProxy() {
    auto diagnostics = SocketDiagnostics::open();
    return ProxyInstance(std::make_shared<ProxyInstance::Port>(
        *std::move(diagnostics), ProxyProcess::addressOf(testing::closedPort())));
  }

  const std::shared_ptr<PacketQueue> queue_ = *PacketQueue::open();
  testing::TestListener loop_{"127.0.0.1"};
  const std::unique_ptr<InterceptionTable> table_;
  const Reference<UserShare> user_ = makeReference<UserShare>();
  testing::TestListener origin_{"127.0.0.1", 8000};
  const testing::Connecting application_{"127.0.0.1", 8000};
  std::vector<testing::OfferedPacket> offered_;
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
  const auto packet = hold();
  packet->refuse();
  EXPECT_EQ(user_->held(), 0U);
  EXPECT_EQ(application_.connectResult(kGenerous), ECONNREFUSED);
}

TEST_F(QueuedPacketTest, IsRedirectedToTheLoop) {
  const auto packet = hold();
  packet->redirect(0);
  expectArrivalAtTheLoop();
}

TEST_F(QueuedPacketTest, IsNotRefusedAfterTheProxysEnd) {
  const auto packet = hold(endedProxy());
  packet->refuse();
  EXPECT_EQ(application_.connectResult(kGenerous), 0);
}

TEST_F(QueuedPacketTest, IsNotRedirectedAfterTheProxysEnd) {
  const auto packet = hold(endedProxy());
  packet->redirect(0);
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

// Too late for a mark to redirect it.
class QueuedPacketAfterFiltersTest : public QueuedPacketTest {
 protected:
  QueuedPacketAfterFiltersTest() : QueuedPacketTest(OfferPoint::afterFilters) {}
};

TEST_F(QueuedPacketAfterFiltersTest, ACopyIsRedirectedToTheLoop) {
  const auto packet = hold(std::nullopt, *PacketResender::open());
  packet->redirect(0);
  expectArrivalAtTheLoop();
}

}  // namespace
}  // namespace ostravel::linuxplatform
