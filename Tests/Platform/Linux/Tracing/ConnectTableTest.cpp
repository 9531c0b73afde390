#include "Platform/Linux/Tracing/ConnectTable.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "Tests/Platform/Linux/Support/SocketTools.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

constexpr std::uint32_t kInitialSequence = 0x12345678;
constexpr std::uint32_t kProcess = 4711;

class ConnectTableTest : public ::testing::Test {
 protected:
  ConnectTable::Slot& slot(const FlowTuple& flow, std::size_t way) {
    return sets_.at(table_.setOf(flow)).at(way);
  }

  // As the kernel writes it.
  void publish(const FlowTuple& flow, std::size_t way = 0) {
    ConnectTable::Slot& written = slot(flow, way);
    written = {};
    written.sequence = 2;
    written.cookie = 99;
    std::memcpy(written.source.data(), flow.source.address.data(), 16);
    std::memcpy(written.destination.data(), flow.destination.address.data(), 16);
    written.sourcePort = flow.source.port;
    written.destinationPort = flow.destination.port;
    written.initialSequence = kInitialSequence;
    written.record.process = kProcess;
    written.socketUser = 1000;
    written.boundInterface = 3;
    written.family = flow.source.family == AddressFamily::ipv4 ? AF_INET : AF_INET6;
    written.place = 5;
    written.cgroup = 7;
  }

  std::uint32_t& programChanges() { return state_->programChanges.at(kProcess); }

  bool isFound(const FlowTuple& flow) const {
    return table_.find(flow, kInitialSequence).has_value();
  }

  const FlowTuple flow_ = flowOverIPv4(TransportProtocol::tcp, 40000, 80);
  std::vector<ConnectTable::Set> sets_{ConnectTable::kSets};
  const std::unique_ptr<ConnectTable::State> state_ = std::make_unique<ConnectTable::State>();
  const ConnectTable table_{sets_.data(), state_.get()};

  static_assert(kProcess % ConnectTable::kProgramCounters != kProcess);
};

TEST_F(ConnectTableTest, ReturnsWhatWasPublished) {
  for (const auto& flow : {flow_, flowOverIPv6(TransportProtocol::tcp, 40000, 80)}) {
    publish(flow);
    const auto found = table_.find(flow, kInitialSequence);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->record.process, static_cast<pid_t>(kProcess));
    EXPECT_EQ(found->socketUser, 1000U);
    EXPECT_EQ(found->boundInterface, 3U);
    EXPECT_EQ(found->cookie, 99U);
    EXPECT_EQ(found->place, 5U);
    EXPECT_EQ(found->cgroup, 7U);
    EXPECT_EQ(table_.findSocket(99), found);
    EXPECT_FALSE(table_.findSocket(98));
    slot(flow, 0) = {};
  }
}

TEST_F(ConnectTableTest, AnEmptyTableKnowsNothing) {
  EXPECT_FALSE(isFound(flow_));
  EXPECT_FALSE(table_.find(FlowTuple{}, 0));
  EXPECT_FALSE(table_.findSocket(0));
}

TEST_F(ConnectTableTest, AnEntryIsAboutOnePacketOnly) {
  const std::array<std::function<void(FlowTuple&)>, 6> changes{
      [](FlowTuple& flow) { flow.source.address[3] = 2; },
      [](FlowTuple& flow) { flow.destination.address[3] = 2; },
      [](FlowTuple& flow) { ++flow.source.port; },
      [](FlowTuple& flow) { ++flow.destination.port; },
      [](FlowTuple& flow) { flow.source.family = flow.destination.family = AddressFamily::ipv6; },
      [](FlowTuple& flow) { flow.protocol = TransportProtocol::udp; },
  };
  for (const auto& change : changes) {
    FlowTuple other = flow_;
    change(other);
    // Even if both belong into the same set.
    publish(flow_);
    slot(other, 1) = slot(flow_, 0);
    EXPECT_FALSE(isFound(other));
    slot(other, 1) = {};
    EXPECT_TRUE(isFound(flow_));
  }
  EXPECT_FALSE(table_.find(flow_, kInitialSequence + 1));
}

TEST_F(ConnectTableTest, FindsAllEntriesOfASet) {
  std::vector<FlowTuple> colliding{flow_};
  for (FlowTuple other = flow_; colliding.size() <= ConnectTable::kWays;) {
    ++other.source.port;
    if (table_.setOf(other) == table_.setOf(flow_)) {
      colliding.push_back(other);
    }
  }
  for (std::size_t way = 0; way < ConnectTable::kWays; ++way) {
    publish(colliding.at(way), way);
  }
  for (std::size_t way = 0; way < ConnectTable::kWays; ++way) {
    EXPECT_TRUE(isFound(colliding.at(way)));
  }
  EXPECT_FALSE(isFound(colliding.back()));
}

TEST_F(ConnectTableTest, TheSetIsUnpredictable) {
  const auto before = table_.setOf(flow_);
  int same = 0;
  for (state_->seed = 1; state_->seed <= 64; ++state_->seed) {
    same += table_.setOf(flow_) == before ? 1 : 0;
  }
  EXPECT_LT(same, 8);
}

TEST_F(ConnectTableTest, ASlotThatIsBeingWrittenIsSkipped) {
  publish(flow_);
  slot(flow_, 0).sequence = 3;
  EXPECT_FALSE(isFound(flow_));
  publish(flow_, 1);
  EXPECT_TRUE(isFound(flow_));
}

TEST_F(ConnectTableTest, SequenceNumbersMayWrap) {
  publish(flow_);
  constexpr auto kMost = std::numeric_limits<std::uint64_t>::max();
  slot(flow_, 0).sequence = kMost - 1;
  EXPECT_TRUE(isFound(flow_));
  slot(flow_, 0).sequence = kMost;
  EXPECT_FALSE(isFound(flow_));
  slot(flow_, 0).sequence = 0;
  EXPECT_TRUE(isFound(flow_));
}

TEST_F(ConnectTableTest, AnEntryIsVoidOnceItsProcessHasExecutedAnotherProgram) {
  state_->programChanges.at(kProcess % ConnectTable::kProgramCounters) = 8;
  publish(flow_);
  EXPECT_FALSE(isFound(flow_));
  slot(flow_, 0).programChanges = 8;
  EXPECT_TRUE(isFound(flow_));
}

// Whatever the memory contains, an entry has to be the packet's in every part that identifies it.
TEST_F(ConnectTableTest, GarbageInEveryWordOfASlotIsNotBelieved) {
  constexpr auto kOnes = std::numeric_limits<std::uint64_t>::max();
  using Words = std::array<std::uint64_t, sizeof(ConnectTable::Slot) / sizeof(std::uint64_t)>;
  publish(flow_);
  const auto truth = table_.find(flow_, kInitialSequence);
  const auto original = std::bit_cast<Words>(slot(flow_, 0));
  // Addresses, ports and the initial sequence number, and the sequence number of the slot.
  constexpr std::size_t kCookie = 1;
  constexpr std::size_t kAfterTheKey = 7;
  for (std::size_t word = 0; word < original.size(); ++word) {
    for (const std::uint64_t value : {std::uint64_t{0}, std::uint64_t{1}, kOnes, ~original[word]}) {
      Words altered = original;
      altered[word] = value;
      slot(flow_, 0) = std::bit_cast<ConnectTable::Slot>(altered);
      const bool isKey = word != kCookie && word < kAfterTheKey && word != 0;
      const bool isEven = altered[0] % 2 == 0;
      if (altered != original && (isKey || !isEven)) {
        EXPECT_FALSE(isFound(flow_)) << word << " " << value;
      }
      table_.findSocket(value);
      slot(flow_, 0) = std::bit_cast<ConnectTable::Slot>(original);
      EXPECT_EQ(table_.find(flow_, kInitialSequence), truth);
    }
  }
}

TEST_F(ConnectTableTest, ATableOfOnesKnowsNothing) {
  std::memset(sets_.data(), 0xFF, sets_.size() * sizeof(ConnectTable::Set));
  EXPECT_FALSE(isFound(flow_));
  EXPECT_FALSE(table_.find(flow_, std::numeric_limits<std::uint32_t>::max()));
  EXPECT_FALSE(table_.findSocket(std::numeric_limits<std::uint64_t>::max()));
}

// As after a writer that never finishes.
TEST_F(ConnectTableTest, ASlotThatStaysOddIsSkippedForGood) {
  for (std::size_t way = 0; way + 1 < ConnectTable::kWays; ++way) {
    publish(flow_, way);
    slot(flow_, way).sequence = 2 * way + 1;
  }
  EXPECT_FALSE(isFound(flow_));
  EXPECT_FALSE(table_.findSocket(99));
  publish(flow_, ConnectTable::kWays - 1);
  EXPECT_TRUE(isFound(flow_));
  EXPECT_TRUE(table_.findSocket(99));
}

// Each complete entry has the same number in its cookie, place and cgroup.
TEST_F(ConnectTableTest, NeverReturnsHalfOfAnEntry) {
  publish(flow_);
  std::atomic<bool> isDone = false;
  std::thread writer([this, &isDone] {
    ConnectTable::Slot& written = slot(flow_, 0);
    const auto store = [](std::uint64_t& word, std::uint64_t value) {
      std::atomic_ref(word).store(value);
    };
    for (std::uint64_t number = 1; !isDone; ++number) {
      store(written.sequence, 2 * number + 1);
      store(written.cookie, number);
      store(written.place, number);
      store(written.cgroup, number);
      store(written.sequence, 2 * number + 2);
    }
  });
  constexpr int kWanted = 20000;
  for (int found = 0, tries = 0; found < kWanted && tries < 100 * kWanted; ++tries) {
    if (const auto entry = table_.find(flow_, kInitialSequence); entry && entry->cookie != 99) {
      ++found;
      ASSERT_EQ(entry->place, entry->cookie);
      ASSERT_EQ(entry->cgroup, entry->cookie);
    }
  }
  isDone = true;
  writer.join();
  EXPECT_TRUE(isFound(flow_));
}

}  // namespace
}  // namespace ostravel::linuxplatform
