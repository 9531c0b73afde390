#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Tests/Contract/ContractTest.h"
#include "Tests/Contract/ContractTunnel.h"

namespace ostravel::contract {
namespace {

using namespace std::chrono_literals;

// Long enough for a platform to switch to its bulk transfer, if it has one.
constexpr std::size_t kBulk = 24 * 1024 * 1024;

// A flow and its connection together: the seam's rules about completions apply across both.
class TunnelContractTest : public ContractTest {
 protected:
  struct Ends {
    std::shared_ptr<ContractTunnel> tunnel;
    std::shared_ptr<ContractPeer> application;
    std::shared_ptr<ContractPeer> peer;
  };

  Ends establish() {
    auto flow = environment_->makeFlow("com.example.app");
    Ends ends;
    ends.application = flow.application;
    ends.tunnel = std::make_shared<ContractTunnel>(std::move(flow.flow), [this] {
      return environment_->connect(environment_->listeningEndpoint());
    });
    ends.tunnel->start();
    EXPECT_TRUE(waitUntil([&] { return ends.tunnel->isRelaying(); }));
    ends.peer = environment_->acceptPeer();
    return ends;
  }
  // Every operation that was started has completed once.
  void expectSettled(const ContractTunnel& tunnel) {
    EXPECT_TRUE(waitUntil([&] { return tunnel.started() == tunnel.completed(); }));
    environment_->settle();
    EXPECT_EQ(tunnel.started(), tunnel.completed());
    EXPECT_FALSE(tunnel.overlapped());
  }
};

TEST_P(TunnelContractTest, BothDirectionsCarryExactBytesAtOnce) {
  const auto ends = establish();
  ASSERT_NE(ends.peer, nullptr);
  const auto up = patternBytes(kBulk, 1);
  const auto down = patternBytes(kBulk, 2);
  ends.application->send(up);
  ends.peer->send(down);
  ASSERT_TRUE(waitUntil([&] {
    return ends.peer->receivedCount() >= up.size() &&
           ends.application->receivedCount() >= down.size();
  }));
  EXPECT_TRUE(ends.peer->received() == up);
  EXPECT_TRUE(ends.application->received() == down);
  ends.application->endSending();
  EXPECT_TRUE(waitUntil([&] { return ends.tunnel->isClosed(); }));
  expectSettled(*ends.tunnel);
}

TEST_P(TunnelContractTest, TheApplicationsEndReachesThePeerAfterEverything) {
  const auto ends = establish();
  ASSERT_NE(ends.peer, nullptr);
  const auto up = patternBytes(kBulk);
  ends.application->send(up);
  ends.application->endSending();
  ASSERT_TRUE(waitUntil([&] { return ends.peer->sawEnd() || ends.peer->sawReset(); }));
  EXPECT_FALSE(ends.peer->sawReset());
  EXPECT_TRUE(ends.peer->received() == up);
  ASSERT_TRUE(waitUntil([&] { return ends.application->sawEnd(); }));
  expectSettled(*ends.tunnel);
}

TEST_P(TunnelContractTest, ThePeersEndReachesTheApplicationAfterEverything) {
  const auto ends = establish();
  ASSERT_NE(ends.peer, nullptr);
  const auto down = patternBytes(kBulk);
  ends.peer->send(down);
  ends.peer->endSending();
  ASSERT_TRUE(
      waitUntil([&] { return ends.application->sawEnd() || ends.application->sawReset(); }));
  EXPECT_FALSE(ends.application->sawReset());
  EXPECT_TRUE(ends.application->received() == down);
  ASSERT_TRUE(waitUntil([&] { return ends.peer->sawEnd(); }));
  expectSettled(*ends.tunnel);
}

TEST_P(TunnelContractTest, ManySmallExchangesKeepTheirOrder) {
  const auto ends = establish();
  ASSERT_NE(ends.peer, nullptr);
  std::string up;
  std::string down;
  for (int i = 0; i < 200; ++i) {
    const auto question = "question " + std::to_string(i);
    const auto answer = "answer " + std::to_string(i);
    up += question;
    down += answer;
    ends.application->send(question);
    ASSERT_TRUE(waitUntil([&] { return ends.peer->receivedCount() == up.size(); }));
    ends.peer->send(answer);
    ASSERT_TRUE(waitUntil([&] { return ends.application->receivedCount() == down.size(); }));
  }
  EXPECT_EQ(ends.peer->received(), up);
  EXPECT_EQ(ends.application->received(), down);
  ends.peer->endSending();
  expectSettled(*ends.tunnel);
}

TEST_P(TunnelContractTest, AResetOfThePeerReachesTheApplication) {
  const auto ends = establish();
  ASSERT_NE(ends.peer, nullptr);
  ends.application->send("request");
  ASSERT_TRUE(waitUntil([&] { return ends.peer->received() == "request"; }));
  ends.peer->reset();
  ASSERT_TRUE(
      waitUntil([&] { return ends.application->sawEnd() || ends.application->sawReset(); }));
  EXPECT_TRUE(ends.application->sawReset());
  expectSettled(*ends.tunnel);
}

TEST_P(TunnelContractTest, AResetOfTheApplicationEndsTheTunnel) {
  const auto ends = establish();
  ASSERT_NE(ends.peer, nullptr);
  ends.application->send("request");
  ASSERT_TRUE(waitUntil([&] { return ends.peer->received() == "request"; }));
  ends.application->reset();
  EXPECT_TRUE(waitUntil([&] { return ends.tunnel->isClosed(); }));
  EXPECT_TRUE(waitUntil([&] { return ends.peer->sawEnd() || ends.peer->sawReset(); }));
  expectSettled(*ends.tunnel);
}

TEST_P(TunnelContractTest, ManyTunnelsDoNotMixTheirBytes) {
  constexpr unsigned kTunnels = 40;
  constexpr std::size_t kBytes = 100'000;
  std::vector<Ends> all;
  for (unsigned i = 0; i < kTunnels; ++i) {
    all.push_back(establish());
    ASSERT_NE(all.back().peer, nullptr);
    all.back().application->send(patternBytes(kBytes, 2 * i));
    all.back().peer->send(patternBytes(kBytes, 2 * i + 1));
  }
  // Peers come in the order in which their connections were accepted, one after the other here.
  for (unsigned i = 0; i < kTunnels; ++i) {
    const auto& ends = all[i];
    ASSERT_TRUE(waitUntil([&] {
      return ends.peer->receivedCount() >= kBytes && ends.application->receivedCount() >= kBytes;
    })) << i;
    EXPECT_TRUE(ends.peer->received() == patternBytes(kBytes, 2 * i)) << i;
    EXPECT_TRUE(ends.application->received() == patternBytes(kBytes, 2 * i + 1)) << i;
    ends.application->endSending();
  }
  for (const auto& ends : all) {
    expectSettled(*ends.tunnel);
  }
}

TEST_P(TunnelContractTest, ClosingFromATimerDuringTheRelayCompletesEverythingOnce) {
  const auto queue = platform().makeQueue("watchdog", platform::DispatchQueueKind::serial);
  const auto sent = patternBytes(4 * 1024 * 1024);
  for (int i = 0; i < 20; ++i) {
    const auto ends = establish();
    ASSERT_NE(ends.peer, nullptr);
    ends.application->send(sent);
    ends.peer->send(sent);
    const auto timer = platform().makeTimer(queue);
    const bool withError = i % 2 == 0;
    timer->setEventHandler([tunnel = ends.tunnel, withError] {
      tunnel->close(withError ? platform::OptionalError{{"OstravelProxy", 1002, "timed out"}}
                              : std::nullopt);
    });
    timer->schedule(std::chrono::microseconds(300 * i), std::nullopt, 0ns);
    timer->resume();
    ASSERT_TRUE(waitUntil([&] { return ends.tunnel->isClosed(); }));
    ASSERT_TRUE(
        waitUntil([&] { return ends.application->sawEnd() || ends.application->sawReset(); }));
    EXPECT_EQ(ends.application->sawReset(), withError);
    expectSettled(*ends.tunnel);
    timer->cancel();
    queue->sync([] {});
  }
}

TEST_P(TunnelContractTest, ATunnelIsReleasedWhenItHasEnded) {
  std::weak_ptr<ContractTunnel> weakTunnel;
  {
    auto ends = establish();
    ASSERT_NE(ends.peer, nullptr);
    weakTunnel = ends.tunnel;
    ends.tunnel.reset();
    ends.application->send("x");
    ASSERT_TRUE(waitUntil([&] { return ends.peer->received() == "x"; }));
    ends.peer->endSending();
  }
  EXPECT_TRUE(waitUntil([&] { return weakTunnel.expired(); }));
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Contract, TunnelContractTest, ::testing::ValuesIn(contractPlatforms()),
                         platformName);

}  // namespace ostravel::contract
