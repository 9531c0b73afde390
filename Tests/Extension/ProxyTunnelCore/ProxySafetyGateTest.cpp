#include "Extension/ProxyTunnelCore/ProxySafetyGate.h"

#include <gtest/gtest.h>

namespace ostravel {
namespace {

TEST(ProxySafetyGate, BypassesWhileTheProxyIsUnavailable) {
  const ProxySafetyGate gate(/*proxyUnavailable=*/true, /*networkUnavailable=*/false);

  EXPECT_TRUE(gate.shouldBypassNewFlows());
}

TEST(ProxySafetyGate, BypassesWhileTheNetworkIsUnavailable) {
  const ProxySafetyGate gate(/*proxyUnavailable=*/false, /*networkUnavailable=*/true);

  EXPECT_TRUE(gate.shouldBypassNewFlows());
}

TEST(ProxySafetyGate, BypassesWhileBothAreUnavailable) {
  const ProxySafetyGate gate(/*proxyUnavailable=*/true, /*networkUnavailable=*/true);

  EXPECT_TRUE(gate.shouldBypassNewFlows());
}

TEST(ProxySafetyGate, IsOpenWhileBothAreAvailable) {
  const ProxySafetyGate gate(/*proxyUnavailable=*/false, /*networkUnavailable=*/false);

  EXPECT_FALSE(gate.shouldBypassNewFlows());
}

TEST(ProxySafetyGate, FollowsTheProxy) {
  ProxySafetyGate gate(/*proxyUnavailable=*/true, /*networkUnavailable=*/false);

  gate.setProxyUnavailable(false);
  EXPECT_FALSE(gate.shouldBypassNewFlows());

  gate.setProxyUnavailable(true);
  EXPECT_TRUE(gate.shouldBypassNewFlows());
}

TEST(ProxySafetyGate, StaysClosedForTheNetworkWhenTheProxyRecovers) {
  ProxySafetyGate gate(/*proxyUnavailable=*/true, /*networkUnavailable=*/true);

  gate.setProxyUnavailable(false);

  EXPECT_TRUE(gate.shouldBypassNewFlows());
}

}  // namespace
}  // namespace ostravel
