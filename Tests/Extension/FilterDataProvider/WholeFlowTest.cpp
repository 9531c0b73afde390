#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Platform/Simulation/Schedule/SeededRandom.h"
#include "Tests/Extension/Support/ProviderHarness.h"

namespace ostravel {
namespace {

using simulation::EndOfStream;
using simulation::FaultPlan;
using simulation::RunOrder;
using simulation::SeededRandom;
using simulation::SimulatedPeer;
using simulation::SimulatedTCPFlow;
using test::ProviderHarness;
using namespace std::chrono_literals;

// How the proxy treats one connection.
enum class ProxyConduct {
  establishes,
  // With the origin's first bytes directly after the header.
  establishesWithLeftover,
  rejects,
  answersNonsense,
  endsAtOnce,
  saysNothing,
};
constexpr std::uint64_t kConducts = 6;

constexpr FaultPlan kFaults{.latency = 0.3,
                            .shortRead = 0.3,
                            .readError = 0.01,
                            .writeError = 0.01,
                            .openError = 0.03,
                            .connectRefusal = 0.01};

// What a seed's run looks like.
struct Plan {
  std::uint64_t seed;
  std::size_t flows;
  // The longest time between two flows.
  std::chrono::milliseconds pause;
};

simulation::SimulationOptions optionsOf(const Plan& plan) {
  simulation::SimulationOptions options;
  options.order = RunOrder::seeded;
  options.seed = plan.seed;
  return options;
}

// Applications and a proxy that behave at random, with every fault there is.
class WholeFlowRun {
 public:
  explicit WholeFlowRun(const Plan& plan)
      : plan_(plan), random_(plan.seed, kStream), harness_(optionsOf(plan)) {}

  void play() {
    harness_.startProvider();
    // Longer than the first probe may be late; it opens the gate.
    simulation().advance(200ms);
    simulation().setFaults(kFaults);
    simulation().onConnectionCreated([this](simulation::SimulatedTCPConnection& made) {
      unanswered_.insert(sentByProxy_.size());
      sentByProxy_.emplace_back();
      made.accept();
    });
    for (std::size_t number = 0; number < plan_.flows; ++number) {
      letTimePass(randomPause());
      offerFlow(number);
    }
    letTimePass(3s);
    for (const auto& flow : taken_) {
      endStream(*flow->application());
    }
    letTimePass(60s);
  }

  void check() {
    countJournal();
    EXPECT_LE(mostPending_, 48U);
    EXPECT_EQ(harness_.peer().admission().pendingCount(), 0U);
    EXPECT_EQ(harness_.peer().establishedCount(), 0U);
    EXPECT_EQ(harness_.peer().activeTunnelCount(), 0U);
    checkCloseEvents();
    for (const auto& flow : taken_) {
      checkFlow(*flow);
    }
    for (std::size_t number = 0; number < sentByProxy_.size(); ++number) {
      checkConnection(number);
    }
  }

  // Counts of what happened, so that a test can check that it tested something.
  std::size_t mostPending() const { return mostPending_; }
  std::size_t completeDirections() const { return completeDirections_; }
  std::map<std::string, std::size_t> eventCounts() {
    std::map<std::string, std::size_t> counts;
    for (const auto& event : harness_.events()) {
      ++counts[event.code];
    }
    return counts;
  }

 private:
  static constexpr std::uint64_t kStream = 99;

  simulation::Simulation& simulation() { return harness_.simulation_; }

  std::chrono::milliseconds randomPause() {
    return std::chrono::milliseconds(
        random_.below(static_cast<std::uint64_t>(plan_.pause.count() + 1)));
  }

  std::string randomBytes() {
    return std::string(1 + random_.below(3000), static_cast<char>('a' + random_.below(26)));
  }

  // The proxy and the check of the limit act between the items of the run.
  void letTimePass(std::chrono::nanoseconds duration) {
    const auto actAndGoOn = [this] {
      mostPending_ = std::max(mostPending_, harness_.peer().admission().pendingCount());
      answerRequests();
      return false;
    };
    simulation().runUntil(actAndGoOn, duration);
  }

  void offerFlow(std::size_t number) {
    // A unique host, to recognise the flow by at the proxy.
    const std::string host = "host-" + std::to_string(number) + ".example";
    const auto flow = simulation().makeTCPFlow("com.example.app", {{host, "443"}});
    if (!harness_.provider_->handleNewFlow(flow)) {
      return;
    }
    taken_.push_back(flow);
    std::string& sent = sentByApplication_[host];
    for (auto chunks = random_.below(4); chunks > 0; --chunks) {
      const std::string bytes = randomBytes();
      flow->application()->send(bytes);
      sent += bytes;
    }
    if (random_.below(3) == 0) {
      endStream(*flow->application());
    }
  }

  void answerRequests() {
    std::erase_if(unanswered_, [this](std::size_t number) {
      SimulatedPeer& proxy = *simulation().peer(number);
      const bool isComplete = !proxy.received().empty();
      if (isComplete) {
        sentByProxy_[number] = answer(proxy);
      }
      return isComplete;
    });
  }

  // Returns what belongs to the application.
  std::string answer(SimulatedPeer& proxy) {
    switch (static_cast<ProxyConduct>(random_.below(kConducts))) {
      case ProxyConduct::establishes:
        return establish(proxy, "");
      case ProxyConduct::establishesWithLeftover:
        return establish(proxy, randomBytes());
      case ProxyConduct::rejects:
        proxy.send("HTTP/1.1 502 Bad Gateway\r\n\r\n");
        break;
      case ProxyConduct::answersNonsense:
        proxy.send("\r\n\r\n");
        break;
      case ProxyConduct::endsAtOnce:
        endStream(proxy);
        break;
      case ProxyConduct::saysNothing:
        break;
    }
    return "";
  }

  std::string establish(SimulatedPeer& proxy, std::string leftover) {
    proxy.send(std::string(ProviderHarness::kSuccess) + leftover);
    const std::string rest = randomBytes();
    proxy.send(rest);
    if (random_.below(3) == 0) {
      endStream(proxy);
    }
    return std::move(leftover) + rest;
  }

  void endStream(SimulatedPeer& peer) {
    if (ended_.insert(peer.name()).second) {
      peer.endSending();
    }
  }

  // How often each entry is in the journal: "NAME: WHAT", without its reason.
  void countJournal() {
    for (const std::string& line : simulation().journal().lines()) {
      ++journal_[line.substr(0, line.find(": ", line.find(": ") + 1))];
    }
  }

  void checkCloseEvents() {
    std::map<std::string, std::size_t> closes;
    for (const auto& event : harness_.events("tunnel_closed")) {
      ++closes[event.flowID.value_or("none")];
    }
    EXPECT_EQ(closes.size(), sentByProxy_.size());
    for (const auto& [flowId, count] : closes) {
      EXPECT_EQ(count, 1U) << flowId;
    }
  }

  void checkFlow(SimulatedTCPFlow& flow) {
    EXPECT_EQ(journal_[flow.name() + ": closeRead"], 1U) << flow.name();
    EXPECT_EQ(journal_[flow.name() + ": closeWrite"], 1U) << flow.name();
    EXPECT_EQ(flow.readCloseError(), flow.writeCloseError()) << flow.name();
    EXPECT_FALSE(flow.application()->readOutstanding()) << flow.name();
    EXPECT_FALSE(flow.application()->writeOutstanding()) << flow.name();
  }

  void checkConnection(std::size_t number) {
    const SimulatedPeer& proxy = *simulation().peer(number);
    EXPECT_EQ(journal_[proxy.name() + ": cancel"], 1U) << proxy.name();
    EXPECT_FALSE(proxy.readOutstanding()) << proxy.name();
    EXPECT_FALSE(proxy.writeOutstanding()) << proxy.name();
    // Without a request nothing is known of its flow, and nothing can have been relayed.
    if (!proxy.received().empty()) {
      checkBytes(*flowOf(proxy), proxy, sentByProxy_[number]);
    }
  }

  std::shared_ptr<SimulatedTCPFlow> flowOf(const SimulatedPeer& proxy) const {
    return *std::find_if(taken_.begin(), taken_.end(), [&proxy](const auto& flow) {
      return proxy.received().starts_with("CONNECT " + flow->remoteEndpoint()->hostname + ":");
    });
  }

  void checkBytes(const SimulatedTCPFlow& flow, const SimulatedPeer& proxy,
                  const std::string& sentByProxy) {
    const std::string toProxy = proxy.received().substr(proxy.received().find("\r\n\r\n") + 4);
    const std::string& toApplication = flow.application()->received();
    const std::string& sentByApplication = sentByApplication_[flow.remoteEndpoint()->hostname];
    EXPECT_TRUE(sentByApplication.starts_with(toProxy)) << flow.name();
    EXPECT_TRUE(sentByProxy.starts_with(toApplication)) << flow.name();
    if (journal_[flow.name() + ": read end"] > 0) {
      EXPECT_EQ(toProxy, sentByApplication) << flow.name();
      ++completeDirections_;
    }
    if (journal_[proxy.name() + ": read end"] > 0) {
      EXPECT_EQ(toApplication, sentByProxy) << flow.name();
      ++completeDirections_;
    }
  }

  const Plan plan_;
  SeededRandom random_;
  // By host.
  std::map<std::string, std::string> sentByApplication_;
  // By the number of the connection.
  std::vector<std::string> sentByProxy_;
  std::set<std::size_t> unanswered_;
  std::set<std::string> ended_;
  std::size_t mostPending_ = 0;
  std::size_t completeDirections_ = 0;
  std::map<std::string, std::size_t> journal_;
  ProviderHarness harness_;
  std::vector<std::shared_ptr<SimulatedTCPFlow>> taken_;
};

// Plays and checks one run per seed; gives what happened in all of them together.
struct Totals {
  std::size_t mostPending = 0;
  std::size_t completeDirections = 0;
  std::map<std::string, std::size_t> events;
};

Totals playSeeds(std::uint64_t seeds, std::size_t flows, std::chrono::milliseconds pause) {
  Totals totals;
  for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    WholeFlowRun run({.seed = seed, .flows = flows, .pause = pause});
    run.play();
    run.check();
    totals.mostPending = std::max(totals.mostPending, run.mostPending());
    totals.completeDirections += run.completeDirections();
    for (const auto& [code, count] : run.eventCounts()) {
      totals.events[code] += count;
    }
    if (testing::Test::HasFailure()) {
      break;
    }
  }
  return totals;
}

TEST(WholeFlow, LosesNothingAndLeavesNothingBehindInAnyOrder) {
  auto totals = playSeeds(300, 16, 200ms);

  EXPECT_GT(totals.completeDirections, 0U);
  for (const char* const code :
       {"extension.connect_handshake_started", "extension.connect_handshake_succeeded",
        "extension.connect_handshake_write_failed", "extension.connect_handshake_read_failed",
        "extension.connect_handshake_invalid", "extension.connect_handshake_non_200",
        "extension.connect_handshake_timed_out",
        "extension.connect_handshake_leftover_write_failed", "extension.tunnel_closed"}) {
    EXPECT_GT(totals.events[code], 0U) << "no run shows " << code;
  }
}

TEST(WholeFlow, NeverHasMoreThanFortyEightHandshakesPending) {
  auto totals = playSeeds(20, 90, 0ms);

  EXPECT_EQ(totals.mostPending, 48U);
  EXPECT_GT(totals.events["extension.connect_handshake_backlog_exceeded"], 0U);
}

TEST(WholeFlow, IsTheSameForTheSameSeed) {
  const auto first = playSeeds(3, 16, 200ms);
  const auto second = playSeeds(3, 16, 200ms);

  EXPECT_EQ(first.events, second.events);
  EXPECT_EQ(first.completeDirections, second.completeDirections);
}

}  // namespace
}  // namespace ostravel
