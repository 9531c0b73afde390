#include "Platform/Linux/Statistics/FlowJournal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Shared/POSIXClock.h"

namespace ostravel::linuxplatform {
namespace {

using platform::FlowEnd;
using platform::FlowRule;
using namespace std::chrono_literals;

class FlowJournalTest : public ::testing::Test {
 protected:
  Reference<FlowRecord> decide(FlowRule rule, unsigned loop = 0) {
    auto record = journal_.open({.application = "app",
                                 .destination = {AddressFamily::ipv4, {192, 0, 2, 1}, 443},
                                 .begin = FlowRecord::Clock::now()},
                                loop);
    record->decided(rule);
    journal_.publish(record);
    return record;
  }
  void decideOften(FlowRule rule, std::size_t count) {
    for (std::size_t number = 0; number < count; ++number) {
      decide(rule);
    }
  }
  std::vector<std::uint64_t> numbers(std::optional<std::uint64_t> after, std::size_t limit) const {
    std::vector<std::uint64_t> numbers;
    for (const auto& flow : journal_.decisions(after, std::nullopt, limit).flows) {
      numbers.push_back(flow.sequence);
    }
    return numbers;
  }

  platform::POSIXClock clock_;
  FlowJournal journal_{clock_, 2};
};

TEST_F(FlowJournalTest, IsEmptyAtFirst) {
  const auto decisions = journal_.decisions(std::nullopt, std::nullopt, 100);
  EXPECT_EQ(decisions.last, 0U);
  EXPECT_TRUE(decisions.flows.empty());
  EXPECT_EQ(journal_.tunnels(100).count, 0U);
}

TEST_F(FlowJournalTest, CountsByActionAndReason) {
  decide(FlowRule::proxied);
  decide(FlowRule::refusedUDP);
  decide(FlowRule::gateClosed);
  decide(FlowRule::gateClosed);
  journal_.countLeft("on_trial", FlowJournal::TimePoint());
  const auto totals = journal_.totals();
  EXPECT_EQ(totals.examined, 5U);
  EXPECT_EQ(totals.proxied, 1U);
  EXPECT_EQ(totals.refused, 1U);
  EXPECT_EQ(totals.direct, 3U);
  EXPECT_EQ(totals.directByReason.at("gate_closed"), 2U);
  EXPECT_EQ(totals.directByReason.at("on_trial"), 1U);
  EXPECT_EQ(totals.verdicts.count(), 4U);
}

TEST_F(FlowJournalTest, AddsUpItsLoops) {
  for (const unsigned loop : {0U, 1U, 1U}) {
    const auto record = decide(FlowRule::proxied, loop);
    record->handshakeStarted();
    record->handshakeSucceeded();
    record->sent(5);
    record->ended(FlowEnd::closed, "eof");
  }
  const auto totals = journal_.totals();
  EXPECT_EQ(totals.established, 3U);
  EXPECT_EQ(totals.handshakes.count(), 3U);
  EXPECT_EQ(totals.bytesSent, 15U);
  EXPECT_EQ(totals.ends[static_cast<std::size_t>(FlowEnd::closed)], 3U);
  EXPECT_EQ(totals.open, 0);
}

TEST_F(FlowJournalTest, ReturnsTheNewestInOrder) {
  decideOften(FlowRule::gateClosed, 5);
  EXPECT_EQ(numbers(std::nullopt, 3), (std::vector<std::uint64_t>{3, 4, 5}));
}

TEST_F(FlowJournalTest, ReturnsTheOldestAfterANumber) {
  decideOften(FlowRule::gateClosed, 5);
  EXPECT_EQ(numbers(2, 2), (std::vector<std::uint64_t>{3, 4}));
  EXPECT_EQ(numbers(5, 2), std::vector<std::uint64_t>{});
  EXPECT_EQ(numbers(77, 2), std::vector<std::uint64_t>{});
}

TEST_F(FlowJournalTest, CountsWhatWentDirectAfterWaiting) {
  for (const auto end :
       {FlowEnd::timedOut, FlowEnd::backlog, FlowEnd::requestFailed, FlowEnd::connectionFailed,
        FlowEnd::rejected, FlowEnd::invalid, FlowEnd::noAnswer, FlowEnd::abandoned}) {
    decide(FlowRule::proxied)->ended(end, "");
  }
  const auto totals = journal_.totals();
  EXPECT_EQ(totals.proxied, 8U);
  EXPECT_EQ(totals.directInTheEnd, 4U);
}

TEST_F(FlowJournalTest, KeepsTheLastThousandAndCountsTheMissing) {
  decideOften(FlowRule::gateClosed, FlowJournal::kKeptDecisions + 10);
  const auto decisions = journal_.decisions(4, std::nullopt, FlowJournal::kKeptDecisions);
  EXPECT_EQ(decisions.last, FlowJournal::kKeptDecisions + 10);
  EXPECT_EQ(decisions.missed, 6U);
  EXPECT_EQ(decisions.flows.size(), FlowJournal::kKeptDecisions);
  EXPECT_EQ(decisions.flows.front().sequence, 11U);
}

TEST_F(FlowJournalTest, ReturnsOlderOnesThatHaveChanged) {
  const auto early = decide(FlowRule::proxied);
  const auto late = decide(FlowRule::proxied);
  // Which may be ahead of the clock, by what passed between a flow's beginning and its record.
  const double before = std::max(early->lastChange(), late->lastChange());
  while (clock_.secondsSince1970() <= before + 0.001) {
  }
  early->ended(FlowEnd::timedOut, "");
  const auto decisions = journal_.decisions(2, before, 100);
  ASSERT_EQ(decisions.flows.size(), 1U);
  EXPECT_EQ(decisions.flows[0].sequence, 1U);
}

TEST_F(FlowJournalTest, KeepsFewOfAFlood) {
  const auto now = FlowRecord::Clock::now();
  std::size_t kept = 0;
  for (int number = 0; number < 1000; ++number) {
    kept += journal_.countLeft("offer_share", now) ? 1 : 0;
  }
  EXPECT_EQ(kept, FlowJournal::kKeptPerSecond);
  EXPECT_TRUE(journal_.countLeft("offer_share", now + 1s));
  EXPECT_EQ(journal_.totals().directByReason.at("offer_share"), 1001U);
}

TEST_F(FlowJournalTest, KeepsAFlowThatIsLeftWithItsReason) {
  journal_.publishLeft({.destination = {AddressFamily::ipv4, {192, 0, 2, 1}, 80}}, "on_trial");
  const auto flows = journal_.decisions(std::nullopt, std::nullopt, 10).flows;
  ASSERT_EQ(flows.size(), 1U);
  EXPECT_EQ(flows[0].reason, "on_trial");
  EXPECT_EQ(flows[0].outcome, "direct");
}

TEST_F(FlowJournalTest, ListsTakenFlowsUntilTheyEnd) {
  decide(FlowRule::gateClosed);
  const auto first = decide(FlowRule::proxied);
  const auto second = decide(FlowRule::proxied);
  ASSERT_EQ(journal_.tunnels(10).count, 2U);
  EXPECT_EQ(journal_.tunnels(1).flows.at(0).sequence, 3U);
  second->ended(FlowEnd::rejected, "");
  EXPECT_EQ(journal_.tunnels(10).flows.at(0).sequence, 2U);
}

TEST_F(FlowJournalTest, ListsATunnelThatIsOlderThanAllDecisions) {
  const auto old = decide(FlowRule::proxied);
  decideOften(FlowRule::gateClosed, FlowJournal::kKeptDecisions);
  EXPECT_EQ(journal_.tunnels(10).flows.at(0).sequence, 1U);
}

TEST_F(FlowJournalTest, ReleasesFlowsThatHaveEnded) {
  const auto record = decide(FlowRule::proxied);
  record->ended(FlowEnd::closed, "eof");
  EXPECT_GT(record.count(), 1U);
  decideOften(FlowRule::gateClosed, FlowJournal::kKeptDecisions);
  journal_.maintain();
  EXPECT_EQ(record.count(), 1U);
}

TEST_F(FlowJournalTest, CanBeReadWhileItIsWritten) {
  std::atomic<bool> isOver = false;
  std::thread reader([this, &isOver] {
    while (!isOver) {
      for (const auto& flow : journal_.decisions(std::nullopt, std::nullopt, 1000).flows) {
        EXPECT_EQ(flow.destination, "192.0.2.1:443");
      }
      for (const auto& flow : journal_.tunnels(1000).flows) {
        EXPECT_EQ(flow.application, "app");
      }
      journal_.totals();
    }
  });
  for (int number = 0; number < 20'000; ++number) {
    const auto record = decide(FlowRule::proxied);
    record->identified("D7A6D6B1-53C9-4E54-8E4C-7D0D53E0F2F4");
    record->handshakeStarted();
    record->handshakeSucceeded();
    record->ended(FlowEnd::closed, "eof");
  }
  isOver = true;
  reader.join();
  EXPECT_EQ(journal_.totals().open, 0);
}

}  // namespace
}  // namespace ostravel::linuxplatform
