#include "Extension/ProxyTunnelCore/ProxyTunnelAdmissionController.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "Tests/Extension/Support/PacketTunnelProviderTestPeer.h"

namespace ostravel {
namespace {

constexpr std::size_t kLimit = 48;

FlowIdentifier idOf(std::size_t number) {
  return FlowIdentifier("flow-" + std::to_string(number));
}

void admit(ProxyTunnelAdmissionController& controller, std::size_t count) {
  for (std::size_t number = 0; number < count; ++number) {
    ASSERT_TRUE(controller.tryAcquireHandshakeSlot(idOf(number)));
  }
}

TEST(ProxyTunnelAdmissionController, StartsEmpty) {
  const ProxyTunnelAdmissionController controller;

  EXPECT_EQ(controller.pendingCount(), 0U);
  EXPECT_EQ(PacketTunnelProviderTestPeer::establishedCount(controller), 0U);
}

TEST(ProxyTunnelAdmissionController, AdmitsANewFlowWhileFortySevenArePending) {
  ProxyTunnelAdmissionController controller;
  admit(controller, kLimit - 1);

  EXPECT_TRUE(controller.tryAcquireHandshakeSlot(FlowIdentifier("new")));
  EXPECT_EQ(controller.pendingCount(), kLimit);
}

TEST(ProxyTunnelAdmissionController, RefusesANewFlowWhileFortyEightArePending) {
  ProxyTunnelAdmissionController controller;
  admit(controller, kLimit);

  EXPECT_FALSE(controller.tryAcquireHandshakeSlot(FlowIdentifier("new")));
  EXPECT_EQ(controller.pendingCount(), kLimit);
}

TEST(ProxyTunnelAdmissionController, RemembersNothingOfARefusedFlow) {
  ProxyTunnelAdmissionController controller;
  admit(controller, kLimit);
  ASSERT_FALSE(controller.tryAcquireHandshakeSlot(FlowIdentifier("new")));

  EXPECT_FALSE(controller.tryAcquireHandshakeSlot(FlowIdentifier("new")));
  EXPECT_EQ(PacketTunnelProviderTestPeer::establishedCount(controller), 0U);
}

TEST(ProxyTunnelAdmissionController, AdmitsAPendingFlowAgainThoughFull) {
  ProxyTunnelAdmissionController controller;
  admit(controller, kLimit);

  EXPECT_TRUE(controller.tryAcquireHandshakeSlot(idOf(0)));
  EXPECT_EQ(controller.pendingCount(), kLimit);
  EXPECT_EQ(PacketTunnelProviderTestPeer::establishedCount(controller), 0U);
}

TEST(ProxyTunnelAdmissionController, AdmitsAnEstablishedFlowAgainThoughFull) {
  ProxyTunnelAdmissionController controller;
  controller.markEstablished(FlowIdentifier("old"));
  admit(controller, kLimit);

  EXPECT_TRUE(controller.tryAcquireHandshakeSlot(FlowIdentifier("old")));
  EXPECT_EQ(controller.pendingCount(), kLimit);
  EXPECT_EQ(PacketTunnelProviderTestPeer::establishedCount(controller), 1U);
}

TEST(ProxyTunnelAdmissionController, DoesNotCountEstablishedTunnels) {
  ProxyTunnelAdmissionController controller;
  for (std::size_t number = 0; number < kLimit; ++number) {
    ASSERT_TRUE(controller.tryAcquireHandshakeSlot(idOf(number)));
    controller.markEstablished(idOf(number));
  }

  EXPECT_TRUE(controller.tryAcquireHandshakeSlot(FlowIdentifier("new")));
  EXPECT_EQ(controller.pendingCount(), 1U);
  EXPECT_EQ(PacketTunnelProviderTestPeer::establishedCount(controller), kLimit);
}

TEST(ProxyTunnelAdmissionController, MovesAPendingFlowToTheEstablishedOnes) {
  ProxyTunnelAdmissionController controller;
  admit(controller, 1);

  controller.markEstablished(idOf(0));

  EXPECT_EQ(controller.pendingCount(), 0U);
  EXPECT_EQ(PacketTunnelProviderTestPeer::establishedCount(controller), 1U);
}

TEST(ProxyTunnelAdmissionController, EstablishesAFlowThatWasNeverAdmitted) {
  ProxyTunnelAdmissionController controller;

  controller.markEstablished(FlowIdentifier("unknown"));

  EXPECT_EQ(PacketTunnelProviderTestPeer::establishedCount(controller), 1U);
}

TEST(ProxyTunnelAdmissionController, FreesASlotWhenAPendingFlowIsReleased) {
  ProxyTunnelAdmissionController controller;
  admit(controller, kLimit);

  controller.release(idOf(7));

  EXPECT_EQ(controller.pendingCount(), kLimit - 1);
  EXPECT_TRUE(controller.tryAcquireHandshakeSlot(FlowIdentifier("new")));
}

TEST(ProxyTunnelAdmissionController, ForgetsAReleasedEstablishedFlow) {
  ProxyTunnelAdmissionController controller;
  controller.markEstablished(FlowIdentifier("old"));

  controller.release(FlowIdentifier("old"));

  EXPECT_EQ(PacketTunnelProviderTestPeer::establishedCount(controller), 0U);
}

TEST(ProxyTunnelAdmissionController, IsNotChangedByReleasingAnUnknownFlow) {
  ProxyTunnelAdmissionController controller;
  admit(controller, 3);
  controller.markEstablished(idOf(0));

  controller.release(FlowIdentifier("unknown"));

  EXPECT_EQ(controller.pendingCount(), 2U);
  EXPECT_EQ(PacketTunnelProviderTestPeer::establishedCount(controller), 1U);
}

// The one test here with threads: the order does not matter, only that no update is lost.
TEST(ProxyTunnelAdmissionController, KeepsItsLimitUnderConcurrentUse) {
  ProxyTunnelAdmissionController controller;
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kFlowsPerThread = 500;
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&controller, thread] {
      for (std::size_t flow = 0; flow < kFlowsPerThread; ++flow) {
        const FlowIdentifier id = idOf(thread * kFlowsPerThread + flow);
        if (!controller.tryAcquireHandshakeSlot(id)) {
          continue;
        }
        EXPECT_LE(controller.pendingCount(), kLimit);
        if (flow % 2 == 0) {
          controller.markEstablished(id);
        }
        controller.release(id);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(controller.pendingCount(), 0U);
  EXPECT_EQ(PacketTunnelProviderTestPeer::establishedCount(controller), 0U);
}

}  // namespace
}  // namespace ostravel
