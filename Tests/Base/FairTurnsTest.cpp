#include "Base/FairTurns.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace ostravel {
namespace {

class FairTurnsTest : public ::testing::Test {
 protected:
  static constexpr std::size_t kOperation = FairTurns::kCostOfOperation;
  // Four operations without a byte of one party, six of all.
  static constexpr FairTurns::Limits kLimits{.share = 4 * kOperation, .total = 6 * kOperation};

  void run(char party, int times = 1, std::size_t bytes = 0) {
    for (int time = 0; time < times; ++time) {
      turns_.run(idOf(party), [this, party, bytes] {
        served_ += party;
        turns_.spend(idOf(party), bytes);
      });
    }
  }

  // Returns who was served in it.
  std::string takeTurn() {
    served_.clear();
    if (!requested_.empty()) {
      const FairTurns::Work turn = std::move(requested_.front());
      requested_.pop_front();
      turn();
    }
    return served_;
  }

  FairTurns::Party idOf(char party) const { return &ids_[static_cast<unsigned char>(party)]; }

  std::string served_;
  std::deque<FairTurns::Work> requested_;
  FairTurns turns_{kLimits, [this](FairTurns::Work turn) { requested_.push_back(turn); }};

 private:
  char ids_[256] = {};
};

TEST_F(FairTurnsTest, RunsAtOnceWithinTheShare) {
  run('a', 4);
  EXPECT_EQ(served_, "aaaa");
}

TEST_F(FairTurnsTest, WaitsBeyondTheShareInOrder) {
  run('a', 4);
  turns_.run(idOf('a'), [this] { served_ += '1'; });
  turns_.run(idOf('a'), [this] { served_ += '2'; });
  EXPECT_EQ(served_, "aaaa");
  EXPECT_EQ(takeTurn(), "12");
}

TEST_F(FairTurnsTest, BytesCountAsWell) {
  run('a', 1, 3 * kOperation);
  run('a');
  EXPECT_EQ(served_, "a");
  EXPECT_EQ(takeTurn(), "a");
}

TEST_F(FairTurnsTest, AnotherPartyIsServedAtOnce) {
  run('a', 100);
  run('b');
  EXPECT_EQ(served_, "aaaab");
}

TEST_F(FairTurnsTest, BeyondTheTotalEveryoneWaits) {
  run('a', 4);
  run('b', 2);
  run('c');
  EXPECT_EQ(served_, "aaaabb");
  EXPECT_EQ(takeTurn(), "c");
}

TEST_F(FairTurnsTest, PartiesThatWaitAreServedByTurns) {
  run('a', 100);
  run('b', 100);
  EXPECT_EQ(served_, "aaaabb");
  EXPECT_EQ(takeTurn(), "aaaabb");
  EXPECT_EQ(takeTurn(), "bbbbaa");
  EXPECT_EQ(takeTurn(), "aaaabb");
}

TEST_F(FairTurnsTest, WorkDoesNotOvertakeEarlierWorkOfItsParty) {
  run('a', 5);
  takeTurn();
  // There is room again, and nothing is waiting.
  turns_.run(idOf('a'), [this] { served_ += '1'; });
  EXPECT_EQ(served_, "a1");
  run('a', 3);
  turns_.run(idOf('a'), [this] { served_ += '2'; });
  EXPECT_EQ(takeTurn(), "a2");
}

TEST_F(FairTurnsTest, WorkMayAddWorkOfItsParty) {
  run('a', 4);
  turns_.run(idOf('a'), [this] {
    served_ += '1';
    turns_.spend(idOf('a'), kLimits.share);
    turns_.run(idOf('a'), [this] { served_ += '2'; });
  });
  EXPECT_EQ(takeTurn(), "1");
  EXPECT_EQ(takeTurn(), "2");
  EXPECT_EQ(takeTurn(), "");
}

TEST_F(FairTurnsTest, WorkThatAlwaysAddsWorkTakesNoMoreMemory) {
  std::function<void(char)> runForever = [&](char party) {
    turns_.run(idOf(party), [&runForever, party] { runForever(party); });
  };
  runForever('a');
  runForever('b');
  const auto takeTurns = [this](int count) {
    for (int turn = 0; turn < count; ++turn) {
      takeTurn();
    }
  };
  takeTurns(100);
  const std::size_t before = ::mallinfo2().uordblks;
  takeTurns(10'000);
  constexpr std::size_t kTolerance = 4096;
  EXPECT_LE(::mallinfo2().uordblks, before + kTolerance);
}

TEST_F(FairTurnsTest, AsksForOneTurnAtATimeAndForNoneWhenIdle) {
  EXPECT_TRUE(requested_.empty());
  run('a', 5);
  run('b', 5);
  EXPECT_EQ(requested_.size(), 1U);
  while (!takeTurn().empty()) {
    EXPECT_LE(requested_.size(), 1U);
  }
  EXPECT_TRUE(requested_.empty());
}

TEST_F(FairTurnsTest, ATurnBeginsWithNothingSpent) {
  run('a', 4);
  EXPECT_EQ(takeTurn(), "");
  run('a', 4);
  EXPECT_EQ(served_, "aaaa");
}

TEST_F(FairTurnsTest, APartyThatReturnsHasItsShareAgain) {
  for (int turn = 0; turn < 3; ++turn) {
    served_.clear();
    run('a', 5);
    EXPECT_EQ(served_, "aaaa");
    EXPECT_EQ(takeTurn(), "a");
    // Ends the account of the waiting work.
    EXPECT_EQ(takeTurn(), "");
  }
}

TEST_F(FairTurnsTest, OfManyPartiesEachKeepsItsPlaceAndItsShare) {
  // So many that the accounts of earlier ones are dropped.
  for (int party = 0; party < 100; ++party) {
    const auto name = static_cast<char>(party);
    run(name, 4);
    run('~');
    EXPECT_EQ(takeTurn(), "") << party;
  }
  served_.clear();
  run('a', 5);
  for (char party = 'b'; party < 'z'; ++party) {
    run(party, 2);
  }
  EXPECT_EQ(served_, "aaaabb");
  EXPECT_EQ(takeTurn(), "accdde");
}

TEST_F(FairTurnsTest, KnowsWhetherWorkIsWaiting) {
  run('a', 4);
  EXPECT_FALSE(turns_.isAnyoneWaiting());
  run('a', 5);
  EXPECT_TRUE(turns_.isAnyoneWaiting());
  takeTurn();
  EXPECT_TRUE(turns_.isAnyoneWaiting());
  takeTurn();
  EXPECT_FALSE(turns_.isAnyoneWaiting());
}

TEST_F(FairTurnsTest, ClearDestroysWaitingWorkWithoutRunningIt) {
  run('a', 4);
  const auto owned = std::make_shared<int>();
  turns_.run(idOf('a'), [this, owned] { served_ += '!'; });
  EXPECT_EQ(owned.use_count(), 2);
  turns_.clear();
  EXPECT_EQ(owned.use_count(), 1);
  EXPECT_EQ(takeTurn(), "");
  run('a');
  EXPECT_EQ(served_, "a");
}

}  // namespace
}  // namespace ostravel
