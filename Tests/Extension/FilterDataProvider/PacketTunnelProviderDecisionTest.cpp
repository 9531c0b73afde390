#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Extension/FilterDataProvider/BuiltInLists.h"
#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Tests/Extension/Support/NotingPlatform.h"
#include "Tests/Extension/Support/ProviderTest.h"

namespace ostravel {

static void PrintTo(PacketTunnelProvider::FlowAction action, std::ostream* stream) {
  constexpr const char* kNames[] = {"bypass", "dropUDP", "proxyTCP"};
  *stream << kNames[static_cast<int>(action)];
}

namespace {

using test::ProviderTest;
using FlowAction = PacketTunnelProvider::FlowAction;
using namespace std::chrono_literals;

constexpr const char* kApp = "com.example.app";
constexpr double kStart = simulation::SimulatedClock::kStart;

enum Protocol : bool { tcp = false, udp = true };

std::string upperCased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
  return text;
}

bool isLowerCase(const std::string& text) {
  return std::none_of(text.begin(), text.end(),
                      [](unsigned char letter) { return std::isupper(letter) != 0; });
}

// --- The decision by the lists

class NormalFlowAction : public ProviderTest {
 protected:
  FlowAction determine(const std::string& host, Protocol protocol,
                       const std::string& appId = kApp) const {
    return provider_->determineNormalFlowAction(appId, host, protocol);
  }
};

TEST_F(NormalFlowAction, ProxiesOtherTCP) {
  EXPECT_EQ(determine("example.org", tcp), FlowAction::proxyTCP);
}

TEST_F(NormalFlowAction, DropsOtherUDP) {
  EXPECT_EQ(determine("example.org", udp), FlowAction::dropUDP);
}

TEST_F(NormalFlowAction, BypassesEveryLowerCaseApplicationInAnyCase) {
  std::size_t checked = 0;
  for (const auto& appId : built_in::bypassAppIds()) {
    if (isLowerCase(appId)) {
      EXPECT_EQ(determine("example.org", tcp, appId), FlowAction::bypass) << appId;
      EXPECT_EQ(determine("example.org", tcp, upperCased(appId)), FlowAction::bypass) << appId;
      ++checked;
    }
  }
  EXPECT_EQ(checked, 18U);
}

TEST_F(NormalFlowAction, NeverMatchesAnApplicationThatIsListedWithCapitals) {
  for (const char* const appId : {"com.apple.WebCore", "com.tunnelbear.mac.TunnelBear",
                                  "net.sparklabs.Viscosity", "com.apple.mDNSResponder"}) {
    ASSERT_TRUE(built_in::bypassAppIds().contains(appId));
    EXPECT_EQ(determine("example.org", tcp, appId), FlowAction::proxyTCP) << appId;
  }
  EXPECT_EQ(determine("example.org", tcp, "com.apple.webcore"), FlowAction::proxyTCP);
}

TEST_F(NormalFlowAction, MatchesAListedSpellingThroughItsLowerCaseTwin) {
  EXPECT_EQ(determine("example.org", tcp, "com.fortinet.FortiClient"), FlowAction::bypass);
}

TEST_F(NormalFlowAction, MatchesAnApplicationAsAWhole) {
  EXPECT_EQ(determine("example.org", tcp, "com.apple.trustd.helper"), FlowAction::proxyTCP);
  EXPECT_EQ(determine("example.org", tcp, ""), FlowAction::proxyTCP);
}

TEST_F(NormalFlowAction, BypassesAnExemptApplicationForUDPAsWell) {
  EXPECT_EQ(determine("example.org", udp, "com.apple.trustd"), FlowAction::bypass);
}

TEST_F(NormalFlowAction, BypassesEveryHardBypassDomainForBothProtocols) {
  for (const auto& entry : built_in::hardBypassDomains()) {
    const std::string host = entry.starts_with('.') ? "sub" + entry : entry;
    EXPECT_EQ(determine(host, tcp), FlowAction::bypass) << host;
    EXPECT_EQ(determine(host, udp), FlowAction::bypass) << host;
  }
}

TEST_F(NormalFlowAction, IgnoresCaseAndRootDotOfTheHost) {
  const auto entries = built_in::hardBypassDomains();
  const std::string suffix = entries.at(0);
  const std::string exact = entries.at(7);
  ASSERT_TRUE(suffix.starts_with('.'));
  ASSERT_FALSE(exact.starts_with('.'));

  EXPECT_EQ(determine("Www" + upperCased(suffix) + ".", tcp), FlowAction::bypass);
  EXPECT_EQ(determine(upperCased(exact) + ".", tcp), FlowAction::bypass);
  EXPECT_EQ(determine("..." + exact, tcp), FlowAction::bypass);
}

TEST_F(NormalFlowAction, ProxiesTheApexAndTheLookalikeOfASuffixEntry) {
  // It has no exact entry.
  const std::string suffix = built_in::hardBypassDomains().at(0);

  EXPECT_EQ(determine(suffix.substr(1), tcp), FlowAction::proxyTCP);
  EXPECT_EQ(determine("not" + suffix.substr(1), tcp), FlowAction::proxyTCP);
}

TEST_F(NormalFlowAction, ExemptsRealtimeMediaForUDPOnly) {
  for (const auto& entry : built_in::realtimeMediaDomains()) {
    const std::string host = entry.starts_with('.') ? "sub" + entry : entry;
    EXPECT_EQ(determine(host, udp), FlowAction::bypass) << host;
    EXPECT_EQ(determine(host, tcp), FlowAction::proxyTCP) << host;
  }
}

TEST_F(NormalFlowAction, NormalisesTheHostForTheUDPPolicyToo) {
  EXPECT_EQ(determine(upperCased(built_in::realtimeMediaDomains().at(0)) + ".", udp),
            FlowAction::bypass);
}

TEST_F(NormalFlowAction, TreatsLiteralsAndUnknownHostsAsPlainText) {
  for (const char* const host : {"192.0.2.10", "2001:db8::1", "127.0.0.1", "unknown", "", "."}) {
    EXPECT_EQ(determine(host, tcp), FlowAction::proxyTCP) << host;
    EXPECT_EQ(determine(host, udp), FlowAction::dropUDP) << host;
  }
}

TEST_F(NormalFlowAction, DoesNotTrimItsArguments) {
  const std::string exact = built_in::hardBypassDomains().at(7);

  EXPECT_EQ(determine(" " + exact, tcp), FlowAction::proxyTCP);
  EXPECT_EQ(determine("example.org", tcp, " com.apple.trustd"), FlowAction::proxyTCP);
}

TEST_F(NormalFlowAction, DependsOnTheGateInNothing) {
  ASSERT_TRUE(bypassesNewFlows());

  EXPECT_EQ(determine("example.org", tcp), FlowAction::proxyTCP);
}

// --- The safety gate

class SafetyGateOverride : public ProviderTest {
 protected:
  // One of each kind.
  std::vector<FlowAction> decideAll() {
    return {provider_->decideFlowAction("com.apple.trustd", "example.org", tcp),
            provider_->decideFlowAction(kApp, "example.org", udp),
            provider_->decideFlowAction(kApp, "example.org", tcp)};
  }
};

TEST_F(SafetyGateOverride, TurnsEveryActionIntoABypassWhileClosed) {
  EXPECT_EQ(decideAll(), std::vector<FlowAction>(3, FlowAction::bypass));
}

TEST_F(SafetyGateOverride, LeavesEveryActionAloneWhileOpen) {
  startProvider();

  EXPECT_EQ(decideAll(),
            (std::vector{FlowAction::bypass, FlowAction::dropUDP, FlowAction::proxyTCP}));
}

// --- The cache

class FlowDecisionCache : public ProviderTest {
 protected:
  static constexpr const char* kKey = "com.example.app:example.org:tcp";

  // The first probe opens the gate.
  void SetUp() override { startProvider(); }

  void letProxyListen(bool listening) {
    sockets().proxyListening(listening);
    simulation_.advance(1s);
  }

  FlowAction decide(const std::string& host = "example.org", Protocol protocol = tcp,
                    const std::string& appId = kApp) {
    const auto action = provider_->decideFlowAction(appId, host, protocol);
    simulation_.run();
    return action;
  }

  // Entries with a key of their own.
  void addEntries(std::size_t count, const std::string& prefix, double expiry) {
    for (std::size_t number = 0; number < count; ++number) {
      peer().addCacheEntry(prefix + std::to_string(number), FlowAction::bypass, expiry);
    }
  }
};

TEST_F(FlowDecisionCache, KeepsADecisionFor30Seconds) {
  EXPECT_EQ(decide(), FlowAction::proxyTCP);

  EXPECT_EQ(peer().cachedAction(kKey), FlowAction::proxyTCP);
  EXPECT_EQ(peer().cachedExpiry(kKey), kStart + 30.0);
}

TEST_F(FlowDecisionCache, KeepsDecisionsOfEveryKind) {
  decide("example.org", udp);
  decide("example.org", tcp, "com.apple.trustd");

  EXPECT_EQ(peer().cachedAction("com.example.app:example.org:udp"), FlowAction::dropUDP);
  EXPECT_EQ(peer().cachedAction("com.apple.trustd:example.org:tcp"), FlowAction::bypass);
}

TEST_F(FlowDecisionCache, HasTheHostInItsKeyAsTheFlowGivesIt) {
  decide("Example.ORG. ");

  EXPECT_EQ(peer().cachedAction("com.example.app:Example.ORG. :tcp"), FlowAction::proxyTCP);
  EXPECT_EQ(peer().cacheSize(), 1U);
}

TEST_F(FlowDecisionCache, DistinguishesKeysOfAnyLength) {
  for (const std::size_t size : {239U, 240U, 241U, 1000U}) {
    const std::string application(size, 'a');
    decide("example.org", tcp, application);
    EXPECT_EQ(peer().cachedAction(application + ":example.org:tcp"), FlowAction::proxyTCP);
  }
  EXPECT_EQ(peer().cacheSize(), 4U);
}

TEST_F(FlowDecisionCache, StoresOnlyAfterTheDecisionWasGiven) {
  provider_->decideFlowAction(kApp, "example.org", tcp);
  EXPECT_EQ(peer().cacheSize(), 0U);

  simulation_.run();
  EXPECT_EQ(peer().cacheSize(), 1U);
}

TEST_F(FlowDecisionCache, IsAskedBeforeTheLists) {
  peer().addCacheEntry(kKey, FlowAction::bypass, kStart + 1.0);

  EXPECT_EQ(decide(), FlowAction::bypass);
}

TEST_F(FlowDecisionCache, DoesNotExtendAnEntryThatWasUsed) {
  decide();
  simulation_.advance(20s);

  decide();

  EXPECT_EQ(peer().cachedExpiry(kKey), kStart + 30.0);
}

TEST_F(FlowDecisionCache, UsesAnEntryUntilItsExpiry) {
  peer().addCacheEntry(kKey, FlowAction::bypass, kStart + 30.0);
  simulation_.advance(29999ms);

  EXPECT_EQ(decide(), FlowAction::bypass);
}

TEST_F(FlowDecisionCache, IgnoresAnEntryWhoseExpiryIsNow) {
  peer().addCacheEntry(kKey, FlowAction::bypass, kStart + 30.0);
  simulation_.advance(30s);

  EXPECT_EQ(decide(), FlowAction::proxyTCP);
  EXPECT_EQ(peer().cachedAction(kKey), FlowAction::proxyTCP);
  EXPECT_EQ(peer().cachedExpiry(kKey), kStart + 60.0);
}

TEST_F(FlowDecisionCache, LeavesExpiredEntriesWhereTheyAre) {
  addEntries(10, "old", kStart - 1.0);

  decide();

  EXPECT_EQ(peer().cacheSize(), 11U);
}

TEST_F(FlowDecisionCache, RemembersWhatTheListsSayWhileTheGateIsClosed) {
  letProxyListen(false);

  EXPECT_EQ(decide(), FlowAction::bypass);
  EXPECT_EQ(peer().cachedAction(kKey), FlowAction::proxyTCP);

  letProxyListen(true);
  EXPECT_EQ(decide(), FlowAction::proxyTCP);
}

TEST_F(FlowDecisionCache, IsOverriddenByTheGate) {
  ASSERT_EQ(decide(), FlowAction::proxyTCP);

  letProxyListen(false);
  EXPECT_EQ(decide(), FlowAction::bypass);

  letProxyListen(true);
  EXPECT_EQ(decide(), FlowAction::proxyTCP);
}

TEST_F(FlowDecisionCache, IsPrunedByAStoreThatFindsMoreThan2000Entries) {
  addEntries(1500, "expired", kStart);
  addEntries(501, "live", kStart + 1.0);

  decide();

  EXPECT_EQ(peer().cacheSize(), 502U);
  EXPECT_EQ(peer().cachedAction("live500"), FlowAction::bypass);
  EXPECT_EQ(peer().cachedAction("expired0"), std::nullopt);
  EXPECT_EQ(peer().cachedAction(kKey), FlowAction::proxyTCP);
}

TEST_F(FlowDecisionCache, IsNotPrunedAt2000Entries) {
  addEntries(2000, "expired", kStart - 1.0);

  decide();

  EXPECT_EQ(peer().cacheSize(), 2001U);
}

TEST_F(FlowDecisionCache, HasNoHardLimit) {
  addEntries(2500, "live", kStart + 1.0);

  decide();

  EXPECT_EQ(peer().cacheSize(), 2501U);
}

TEST_F(FlowDecisionCache, IsNotPrunedByAHit) {
  addEntries(2500, "expired", kStart - 1.0);
  peer().addCacheEntry(kKey, FlowAction::proxyTCP, kStart + 1.0);

  decide();

  EXPECT_EQ(peer().cacheSize(), 2501U);
}

// Runs an action once, in the middle of a decision: when that lower-cases a text.
class InterruptingText final : public platform::TextServices {
 public:
  explicit InterruptingText(const platform::TextServices& other) : other_(other) {}

  void interruptOnce(std::function<void()> action) { action_ = std::move(action); }

  std::string lowercased(std::string_view text) const override {
    if (const auto action = std::exchange(action_, nullptr)) {
      action();
    }
    return other_.lowercased(text);
  }
  std::string_view trimmed(std::string_view text) const override { return other_.trimmed(text); }

 private:
  const platform::TextServices& other_;
  mutable std::function<void()> action_;
};

TEST_F(FlowDecisionCache, TakesTheLaterOfTwoStoresForOneKey) {
  // Only a text with capitals is lower-cased.
  InterruptingText text(simulation_.text());
  test::NotingPlatform platform(simulation_);
  platform.useText(text);
  const auto provider = std::make_shared<PacketTunnelProvider>(platform, simulation_);
  // Another thread decides a second later and stores its decision first.
  text.interruptOnce([this, &provider] {
    simulation_.spend(1s);
    provider->decideFlowAction(kApp, "Example.org", tcp);
  });

  provider->decideFlowAction(kApp, "Example.org", tcp);
  simulation_.run();

  const PacketTunnelProviderTestPeer peer(*provider);
  ASSERT_EQ(platform.notesOf("com.ostravel.bypassCache asyncBarrier").size(), 2U);
  EXPECT_EQ(peer.cacheSize(), 1U);
  EXPECT_EQ(peer.cachedExpiry(std::string(kApp) + ":Example.org:tcp"), kStart + 30.0);
}

TEST_F(FlowDecisionCache, DoesNotKeepTheProviderAliveWithAStore) {
  const std::weak_ptr<PacketTunnelProvider> weakProvider = provider_;
  provider_->decideFlowAction(kApp, "example.org", tcp);

  provider_.reset();
  EXPECT_TRUE(weakProvider.expired());

  simulation_.run();
}

}  // namespace
}  // namespace ostravel
