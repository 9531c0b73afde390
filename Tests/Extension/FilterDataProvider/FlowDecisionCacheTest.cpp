#include "Extension/FilterDataProvider/FlowDecisionCache.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <unordered_map>

namespace ostravel {
namespace {

using Cache = FlowDecisionCache<int>;

constexpr std::size_t kThreshold = Cache::kPruningThreshold;

// The reference for the cache: every sweep walks the whole table.
class PlainCache {
 public:
  void store(const std::string& key, int decision, double expiry, double now) {
    if (entries_.size() > kThreshold) {
      std::erase_if(entries_, [now](const auto& item) { return !(item.second.expiry > now); });
    }
    entries_.insert_or_assign(key, Cache::Entry{decision, expiry});
  }
  const std::unordered_map<std::string, Cache::Entry>& entries() const { return entries_; }

 private:
  std::unordered_map<std::string, Cache::Entry> entries_;
};

void expectEqual(const Cache& cache, const PlainCache& plain) {
  ASSERT_EQ(cache.size(), plain.entries().size());
  for (const auto& [key, expected] : plain.entries()) {
    const auto* const entry = cache.find(key);
    ASSERT_NE(entry, nullptr) << key;
    ASSERT_EQ(entry->decision, expected.decision) << key;
    ASSERT_EQ(entry->expiry, expected.expiry) << key;
  }
}

void fill(Cache& cache, std::size_t count, const std::string& prefix, double expiry) {
  for (std::size_t index = 0; index < count; ++index) {
    cache.store(prefix + std::to_string(index), 0, expiry, /*now=*/0.0);
  }
}

TEST(FlowDecisionCacheTest, FindsWhatWasStoredLast) {
  Cache cache;
  cache.store("key", 1, 30.0, 0.0);
  cache.store("key", 2, 40.0, 10.0);

  EXPECT_EQ(cache.size(), 1U);
  EXPECT_EQ(cache.find("key")->decision, 2);
  EXPECT_EQ(cache.find("key")->expiry, 40.0);
  EXPECT_EQ(cache.find("other"), nullptr);
}

TEST(FlowDecisionCacheTest, SweepsOnlyAboveTheThreshold) {
  Cache cache;
  fill(cache, kThreshold, "expired", 1.0);

  cache.store("new", 0, 32.0, 2.0);
  EXPECT_EQ(cache.size(), kThreshold + 1);

  cache.store("newer", 0, 32.0, 2.0);
  EXPECT_EQ(cache.size(), 2U);
}

TEST(FlowDecisionCacheTest, RemovesAnEntryWhoseExpiryIsNow) {
  Cache cache;
  fill(cache, kThreshold, "now", 2.0);
  fill(cache, 1, "later", 2.001);

  cache.store("new", 0, 32.0, 2.0);

  EXPECT_EQ(cache.size(), 2U);
  EXPECT_NE(cache.find("later0"), nullptr);
}

TEST(FlowDecisionCacheTest, CountsTheExpiryOfTheLastStore) {
  Cache cache;
  fill(cache, kThreshold, "live", 100.0);
  cache.store("longer", 0, 1.0, 0.0);
  cache.store("longer", 0, 100.0, 0.0);
  cache.store("live0", 0, 1.0, 0.0);

  cache.store("new", 0, 32.0, 2.0);

  EXPECT_NE(cache.find("longer"), nullptr);
  EXPECT_EQ(cache.find("live0"), nullptr);
  EXPECT_EQ(cache.size(), kThreshold + 1);
}

TEST(FlowDecisionCacheTest, StoresAKeyThatItsOwnSweepRemoves) {
  Cache cache;
  fill(cache, kThreshold + 1, "expired", 1.0);

  cache.store("expired0", 7, 32.0, 2.0);

  EXPECT_EQ(cache.size(), 1U);
  EXPECT_EQ(cache.find("expired0")->decision, 7);
}

TEST(FlowDecisionCacheTest, BehavesLikeACacheThatWalksTheWholeTable) {
  for (std::uint32_t seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto upTo = [&random](std::uint32_t limit) {
      return static_cast<std::uint32_t>(random() % (limit + 1));
    };
    // Few keys are stored again and again, many grow the table.
    const std::uint32_t keys = 2001 + upTo(6000);
    Cache cache;
    PlainCache plain;
    double now = 1000.0;
    for (int step = 0; step < 10'000; ++step) {
      now += static_cast<double>(upTo(20)) / 1000.0;
      if (upTo(1000) == 0) {
        // The clock is set, forwards or back.
        now += static_cast<double>(upTo(200)) - 100.0;
      }
      // The stores of several flows are not made in the order of their times.
      const double storedAt = now - static_cast<double>(upTo(3)) / 100.0;
      const std::string key = std::to_string(upTo(keys));
      cache.store(key, step, storedAt + 30.0, storedAt);
      plain.store(key, step, storedAt + 30.0, storedAt);
      ASSERT_EQ(cache.size(), plain.entries().size()) << "step " << step;
      if (step % 1000 == 0) {
        ASSERT_NO_FATAL_FAILURE(expectEqual(cache, plain)) << "step " << step;
      }
    }
    expectEqual(cache, plain);
  }
}

}  // namespace
}  // namespace ostravel
