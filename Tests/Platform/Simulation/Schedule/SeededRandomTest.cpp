#include "Platform/Simulation/Schedule/SeededRandom.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>

namespace ostravel::simulation {
namespace {

TEST(SeededRandomTest, SameSeedAndStreamGiveTheSameNumbers) {
  SeededRandom one(7, 1);
  SeededRandom other(7, 1);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(one.next(), other.next());
  }
}

TEST(SeededRandomTest, SeedsAndStreamsDiffer) {
  std::set<std::uint64_t> first;
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    for (std::uint64_t stream = 0; stream < 3; ++stream) {
      first.insert(SeededRandom(seed, stream).next());
    }
  }
  EXPECT_EQ(first.size(), 60U);
}

TEST(SeededRandomTest, NumbersBelowABoundReachAllOfThem) {
  SeededRandom random(1, 0);
  std::set<std::uint64_t> seen;
  for (int i = 0; i < 200; ++i) {
    seen.insert(random.below(5));
  }
  EXPECT_EQ(seen, (std::set<std::uint64_t>{0, 1, 2, 3, 4}));
}

TEST(SeededRandomTest, ChancesOccurWithTheirProbability) {
  SeededRandom random(1, 0);
  int hits = 0;
  for (int i = 0; i < 10000; ++i) {
    hits += random.chance(0.25) ? 1 : 0;
  }
  EXPECT_NEAR(hits, 2500, 200);
}

TEST(SeededRandomTest, CertaintyIsCertain) {
  SeededRandom random(1, 0);
  for (int i = 0; i < 1000; ++i) {
    EXPECT_TRUE(random.chance(1.0));
    EXPECT_FALSE(random.chance(0.0));
  }
}

TEST(SeededRandomTest, AChanceOfZeroDrawsNothing) {
  SeededRandom one(3, 0);
  SeededRandom other(3, 0);
  one.chance(0.0);
  EXPECT_EQ(one.next(), other.next());
}

}  // namespace
}  // namespace ostravel::simulation
