#include "Companion/Fleet/ReconnectDelay.h"

#include <gtest/gtest.h>

#include <climits>

namespace ostravel::companion::test {
namespace {

using namespace std::chrono_literals;

TEST(ReconnectDelayTest, DoublesUpToALimit) {
  EXPECT_EQ(reconnectDelay(1, 1.0), 1s);
  EXPECT_EQ(reconnectDelay(2, 1.0), 2s);
  EXPECT_EQ(reconnectDelay(6, 1.0), 32s);
  EXPECT_EQ(reconnectDelay(7, 1.0), 60s);
  EXPECT_EQ(reconnectDelay(INT_MAX, 1.0), 60s);
}

TEST(ReconnectDelayTest, IsAnywhereBelowTheLimit) {
  EXPECT_EQ(reconnectDelay(7, 0.5), 30s);
  EXPECT_EQ(reconnectDelay(7, 0.0), kShortestReconnectDelay);
}

TEST(ReconnectDelayTest, AcceptsNonsensicalNumbers) {
  EXPECT_EQ(reconnectDelay(0, 1.0), 1s);
  EXPECT_EQ(reconnectDelay(-5, -1.0), kShortestReconnectDelay);
}

TEST(ReconnectDelayTest, DiffersFromOneCallToTheNext) {
  bool differs = false;
  for (int round = 0; round < 100; ++round) {
    differs = differs || randomReconnectDelay(7) != randomReconnectDelay(7);
  }
  EXPECT_TRUE(differs);
}

}  // namespace
}  // namespace ostravel::companion::test
