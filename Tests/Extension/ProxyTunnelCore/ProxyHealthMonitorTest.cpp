#include "Extension/ProxyTunnelCore/ProxyHealthMonitor.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace ostravel {
namespace {

using enum ProxyHealthProbeResult;
using enum ProxyHealthEvent;

class ProxyHealthMonitorTest : public testing::Test {
 protected:
  void record(std::initializer_list<ProxyHealthProbeResult> results) {
    for (const auto result : results) {
      monitor_.recordProbeResult(result);
    }
  }

  std::shared_ptr<ProxySafetyGate> gate_ =
      std::make_shared<ProxySafetyGate>(/*proxyUnavailable=*/true, /*networkUnavailable=*/false);
  std::vector<ProxyHealthEvent> events_;
  ProxyHealthMonitor monitor_{gate_, [this](ProxyHealthEvent event) { events_.push_back(event); }};
};

TEST_F(ProxyHealthMonitorTest, LeavesTheGateClosedBeforeAnyResult) {
  EXPECT_TRUE(gate_->shouldBypassNewFlows());
}

TEST_F(ProxyHealthMonitorTest, OpensTheGateSilentlyOnAFirstReachable) {
  record({reachable});

  EXPECT_FALSE(gate_->shouldBypassNewFlows());
  EXPECT_TRUE(events_.empty());
}

TEST_F(ProxyHealthMonitorTest, RaisesAnEventOnAFirstUnreachable) {
  record({unreachable});

  EXPECT_TRUE(gate_->shouldBypassNewFlows());
  EXPECT_EQ(events_, std::vector{proxyUnavailable});
}

TEST_F(ProxyHealthMonitorTest, StaysSilentWhileReachable) {
  record({reachable, reachable});

  EXPECT_FALSE(gate_->shouldBypassNewFlows());
  EXPECT_TRUE(events_.empty());
}

TEST_F(ProxyHealthMonitorTest, RaisesOneEventPerChange) {
  record({unreachable, unreachable});
  EXPECT_TRUE(gate_->shouldBypassNewFlows());

  record({reachable});

  EXPECT_FALSE(gate_->shouldBypassNewFlows());
  EXPECT_EQ(events_, (std::vector{proxyUnavailable, proxyRecovered}));
}

TEST_F(ProxyHealthMonitorTest, RaisesAnEventWhenAReachableProxyGoesDown) {
  record({reachable, unreachable});

  EXPECT_TRUE(gate_->shouldBypassNewFlows());
  EXPECT_EQ(events_, std::vector{proxyUnavailable});
}

TEST_F(ProxyHealthMonitorTest, ReopensSilentlyAGateThatATunnelClosed) {
  record({reachable});
  gate_->setProxyUnavailable(true);

  record({reachable});

  EXPECT_FALSE(gate_->shouldBypassNewFlows());
  EXPECT_TRUE(events_.empty());
}

TEST_F(ProxyHealthMonitorTest, ClosesAGateThatWasOpenedMeanwhile) {
  record({unreachable});
  gate_->setProxyUnavailable(false);

  record({unreachable});

  EXPECT_TRUE(gate_->shouldBypassNewFlows());
  EXPECT_EQ(events_, std::vector{proxyUnavailable});
}

TEST_F(ProxyHealthMonitorTest, SetsTheGateBeforeItRaisesTheEvent) {
  std::vector<bool> gateSeen;
  ProxyHealthMonitor monitor(gate_, [this, &gateSeen](ProxyHealthEvent) {
    gateSeen.push_back(gate_->shouldBypassNewFlows());
  });
  gate_->setProxyUnavailable(false);

  monitor.recordProbeResult(unreachable);
  monitor.recordProbeResult(reachable);

  EXPECT_EQ(gateSeen, (std::vector{true, false}));
}

TEST_F(ProxyHealthMonitorTest, DrivesTheGateWithoutAnEventHandler) {
  ProxyHealthMonitor silent(gate_, nullptr);

  silent.recordProbeResult(reachable);
  EXPECT_FALSE(gate_->shouldBypassNewFlows());

  silent.recordProbeResult(unreachable);
  EXPECT_TRUE(gate_->shouldBypassNewFlows());

  silent.recordProbeResult(reachable);
  EXPECT_FALSE(gate_->shouldBypassNewFlows());
}

}  // namespace
}  // namespace ostravel
