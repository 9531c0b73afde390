#include "Platform/Linux/AliveKeeper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>

#include "Platform/Linux/PacketQueue.h"
#include "Tests/Linux/Interception/Support/NetworkFixture.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using testing::loopbackSettings;
using testing::outputOf;

class SilentLog final : public platform::Log {
 protected:
  void write(platform::LogLevel /*level*/, std::string_view /*format*/,
             std::span<const platform::LogArgument> /*arguments*/) override {}
};

class AliveKeeperTest : public ::testing::Test {
 protected:
  std::unique_ptr<InterceptionTable> installTable() {
    return std::get<std::unique_ptr<InterceptionTable>>(
        InterceptionTable::install(loopbackSettings(), PacketMarks(), 1, {}));
  }

  const std::shared_ptr<platform::Log> log_ = std::make_shared<SilentLog>();
};

TEST_F(AliveKeeperTest, RefreshesOnABeat) {
  std::promise<void> refreshed;
  AliveKeeper keeper(installTable(), log_, [&refreshed] { refreshed.set_value(); });
  keeper.beat();
  EXPECT_EQ(refreshed.get_future().wait_for(5s), std::future_status::ready);
}

TEST_F(AliveKeeperTest, DoesNothingByItself) {
  std::atomic<int> refreshes = 0;
  {
    AliveKeeper keeper(installTable(), log_, [&refreshes] { ++refreshes; });
    // The elements run out, which they would not if anybody refreshed them.
    const auto deadline = std::chrono::steady_clock::now() + InterceptionTable::kAliveTimeout * 3;
    while (outputOf("nft list set inet ostravel alive").find("elements") != std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
    }
    EXPECT_LT(std::chrono::steady_clock::now(), deadline);
  }
  EXPECT_EQ(refreshes, 0);
}

TEST_F(AliveKeeperTest, RemovesTheTableAtTheEnd) {
  { const AliveKeeper keeper(installTable(), log_, nullptr); }
  EXPECT_EQ(outputOf("nft list ruleset"), "");
}

TEST_F(AliveKeeperTest, RemovesTheTableWhenAsked) {
  AliveKeeper keeper(installTable(), log_, nullptr);
  keeper.removeTable();
  EXPECT_EQ(outputOf("nft list ruleset"), "");
}

}  // namespace
}  // namespace ostravel::linuxplatform
