#include "Companion/Control/TopHistory.h"

#include <gtest/gtest.h>

#include <string>

#include "Base/JSONHandle.h"

namespace ostravel::companion {
namespace {

JSONHandle parsed(const std::string& text) {
  return JSONHandle(json_loads(text.c_str(), 0, nullptr));
}

std::string statusAt(double now, int bytes, int handshakes, int microseconds) {
  return R"({"proxying":{"active":true,"message":"Fine."},"gate":{"state":"open"},"program":{"now":)" +
         std::to_string(now) + R"(},"handshakes":{"pending_now":3,"time":{"count":)" +
         std::to_string(handshakes) + R"(,"sum_us":)" + std::to_string(microseconds) +
         R"(}},"tunnels":{"now":2,"bytes_sent":)" + std::to_string(bytes) +
         R"(,"bytes_received":0}})";
}

class TopHistoryTest : public ::testing::Test {
 protected:
  void add(const std::string& status, const std::string& tunnels = "{}",
           const std::string& decisions = "{}") {
    history_.add(parsed(status).get(), parsed(tunnels).get(), parsed(decisions).get());
  }

  TopHistory history_;
};

TEST_F(TopHistoryTest, TakesRatesFromTwoAnswers) {
  add(statusAt(100, 1000, 10, 5000));
  EXPECT_EQ(history_.samples().back().bytesPerSecond, 0);
  add(statusAt(102, 5000, 12, 9000));
  const auto& sample = history_.samples().back();
  EXPECT_EQ(sample.bytesPerSecond, 2000);
  EXPECT_EQ(sample.handshakeMicroseconds, 2000);
  EXPECT_EQ(sample.pending, 3);
  EXPECT_EQ(sample.tunnels, 2);
  EXPECT_EQ(sample.gate, 1);
  EXPECT_TRUE(history_.isProxying());
}

TEST_F(TopHistoryTest, StartsOverWithAnotherProcess) {
  add(statusAt(100, 5000, 10, 5000));
  add(statusAt(101, 10, 0, 0));
  EXPECT_EQ(history_.samples().back().bytesPerSecond, 0);
}

TEST_F(TopHistoryTest, KeepsTheRecentPastOnly) {
  for (std::size_t index = 0; index < TopHistory::kKeptSamples + 5; ++index) {
    add(statusAt(static_cast<double>(index), 0, 0, 0));
  }
  EXPECT_EQ(history_.samples().size(), TopHistory::kKeptSamples);
}

TEST_F(TopHistoryTest, AddsUpApplications) {
  add("{}",
      R"({"tunnels":[{"application":"/b","outcome":"established","bytes_sent":5,"bytes_received":7},
                     {"application":"/b","outcome":"pending"}]})",
      R"({"decisions":[{"application":"/a","outcome":"closed","handshake_ms":2.0},
                       {"application":"/a","outcome":"timed_out"},
                       {"application":"/a","outcome":"closed","handshake_ms":4.0},
                       {"application":"","outcome":"direct"}]})");
  const auto& applications = history_.applications();
  ASSERT_EQ(applications.size(), 3U);
  EXPECT_EQ(applications[0].name, "/b");
  EXPECT_EQ(applications[0].tunnels, 1U);
  EXPECT_EQ(applications[0].pending, 1U);
  EXPECT_EQ(applications[0].received, 7);
  EXPECT_EQ(applications[1].name, "/a");
  EXPECT_EQ(applications[1].flows, 3U);
  EXPECT_EQ(applications[1].failures, 1U);
  EXPECT_EQ(applications[1].handshakeMilliseconds, 3);
  EXPECT_EQ(applications[2].name, "(unknown)");
}

TEST_F(TopHistoryTest, GivesProgramsTheLatestSample) {
  add(statusAt(100, 1000, 10, 5000));
  add(statusAt(102, 5000, 12, 9000),
      R"({"tunnels":[{"application":"/b","outcome":"established","bytes_sent":5}]})");
  const JSONHandle expected = parsed(R"({"time":102.0,"active":true,"message":"Fine.",
      "gate":"open","pending":3,"tunnels":2,"bytes_per_second":2000.0,"handshake_ms":2.0,
      "applications":[{"application":"/b","tunnels":1,"pending":0,"bytes_sent":5,
        "bytes_received":0,"handshake_ms":0.0,"flows":0,"failures":0}]})");
  EXPECT_TRUE(json_equal(history_.latest().get(), expected.get()));
}

}  // namespace
}  // namespace ostravel::companion
