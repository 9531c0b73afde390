#include "Extension/main/ProxyingState.h"

#include <gtest/gtest.h>

namespace ostravel::linuxplatform {
namespace {

using Reason = ProxyingState::Reason;
using Facts = ProxyingState::Facts;

const Facts kFine{.isIntercepting = true, .isGateOpen = true};

Reason reasonWith(const Facts& facts, const char* proxy = "tinyproxy (process 1, user root)") {
  ProxyingState state;
  state.setProxy(proxy, "it is tested", 50);
  state.update(facts, 100);
  EXPECT_FALSE(state.state().message().empty());
  EXPECT_NE(nameOf(state.state().reason), "unknown");
  return state.state().reason;
}

TEST(ProxyingStateTest, IsStartingUntilTheFirstProbe) {
  EXPECT_EQ(ProxyingState().state().reason, Reason::starting);
  EXPECT_EQ(reasonWith({.isIntercepting = true}), Reason::starting);
  EXPECT_EQ(reasonWith({.isGateOpen = true}), Reason::starting);
}

TEST(ProxyingStateTest, NamesWhatPreventsProxying) {
  EXPECT_EQ(reasonWith(kFine), Reason::proxied);
  EXPECT_EQ(reasonWith(kFine, ""), Reason::proxyNotTrusted);
  Facts facts = kFine;
  facts.isRedirectUsable = false;
  EXPECT_EQ(reasonWith(facts), Reason::redirectBlocked);
  facts.isNearDescriptorLimit = true;
  EXPECT_EQ(reasonWith(facts), Reason::descriptors);
  facts.isGateOpen = false;
  EXPECT_EQ(reasonWith(facts), Reason::proxyUnreachable);
  facts.isStopping = true;
  EXPECT_EQ(reasonWith(facts), Reason::stopping);
}

TEST(ProxyingStateTest, NoticesAProxyThatDoesNotAnswer) {
  Facts facts = kFine;
  facts.lastSuccess = 60;
  facts.lastTimeout = 61;
  EXPECT_EQ(reasonWith(facts), Reason::proxyNotAnswering);
  facts.lastSuccess = 62;
  EXPECT_EQ(reasonWith(facts), Reason::proxied);
}

// A handshake that times out closes the gate until the next probe, which finds the port open.
TEST(ProxyingStateTest, DistinguishesAHungProxyFromAnAbsentOne) {
  Facts facts = kFine;
  facts.isGateOpen = false;
  facts.isProxyReachable = true;
  facts.lastTimeout = 61;
  EXPECT_EQ(reasonWith(facts), Reason::proxyNotAnswering);
  EXPECT_EQ(reasonWith(facts, ""), Reason::proxyUnreachable);
  facts.isProxyReachable = false;
  EXPECT_EQ(reasonWith(facts), Reason::proxyUnreachable);
  facts.isProxyReachable = true;
  facts.lastTimeout = 0;
  EXPECT_EQ(reasonWith(facts), Reason::proxyUnreachable);
}

TEST(ProxyingStateTest, ForgetsTheTimeoutsOfAnotherProxy) {
  Facts facts = kFine;
  facts.lastTimeout = 40;
  EXPECT_EQ(reasonWith(facts), Reason::proxied);
}

TEST(ProxyingStateTest, KeepsTheTimeOfTheLastChange) {
  ProxyingState state;
  state.setProxy("proxy", "", 1);
  state.update(kFine, 100);
  state.update(kFine, 200);
  EXPECT_EQ(state.state().since, 100);
  state.update({.isIntercepting = true, .isGateOpen = false}, 300);
  EXPECT_EQ(state.state().since, 300);
}

TEST(ProxyingStateTest, NamesTheProxy) {
  ProxyingState state;
  state.setProxy("tinyproxy (process 7, user proxy)", "", 1);
  state.update(kFine, 2);
  EXPECT_EQ(state.state().message(),
            "New connections are proxied by tinyproxy (process 7, user proxy).");
}

// The test that it has passed was once; it may hang since.
TEST(ProxyingStateTest, SaysOfATestedProxyWhetherItAnswersNow) {
  ProxyingState state;
  EXPECT_EQ(state.state().proxyText(), "it has not been looked for yet");
  state.setProxy("tinyproxy (process 7, user proxy)", "it belongs to root", 1);
  state.update(kFine, 2);
  EXPECT_EQ(state.state().proxyText(), "it belongs to root");
  Facts facts = kFine;
  facts.lastTimeout = 3;
  state.update(facts, 3);
  EXPECT_EQ(state.state().proxyText(), "it does not answer in time; it belongs to root");
  state.update({.isIntercepting = true, .isGateOpen = false}, 4);
  EXPECT_EQ(state.state().proxyText(), "it cannot be reached; it belongs to root");
  state.setProxy("", "nothing listens on port 8080", 5);
  EXPECT_EQ(state.state().proxyText(), "nothing listens on port 8080");
}

TEST(ProxyingStateTest, SaysWhyAListenerIsNotTheProxy) {
  ProxyingState state;
  state.update(kFine, 1);
  EXPECT_EQ(state.state().message(),
            "New connections go direct: no proxy is known on 127.0.0.1:8080.");
  state.setProxy("", "nc (process 7, user root) listens on port 8080 and is being tested", 2);
  state.update(kFine, 3);
  EXPECT_EQ(
      state.state().message(),
      "New connections go direct: nc (process 7, user root) listens on port 8080 and is being "
      "tested.");
}

}  // namespace
}  // namespace ostravel::linuxplatform
