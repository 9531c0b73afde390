#include "Platform/Linux/Interception/AliveKeeper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <semaphore>
#include <string>
#include <utility>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

constexpr auto kGenerous = 20s;

using testing::loopbackSettings;
using testing::outputOf;

// Keeps the lines for the test.
class KeptLog final : public platform::Log {
 public:
  std::vector<std::string> lines() const {
    const std::lock_guard guard(lock_);
    return lines_;
  }

 protected:
  void write(platform::LogLevel /*level*/, std::string_view format,
             std::span<const platform::LogArgument> arguments) override {
    const std::lock_guard guard(lock_);
    lines_.push_back(platform::formatLogLine(format, arguments));
  }

 private:
  mutable std::mutex lock_;
  std::vector<std::string> lines_;
};

platform::Result<std::unique_ptr<InterceptionTable>> install() {
  return InterceptionTable::install(loopbackSettings(), PacketMarks(), 1, {});
}

std::unique_ptr<InterceptionTable> installTable() {
  return *install();
}

// Breaks the netfilter sockets of this process, so that the kernel removes what they own.
void breakNetfilterSockets() {
  const FileDescriptor nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename());
    int protocol = 0;
    int domain = 0;
    socklen_t size = sizeof protocol;
    if (::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
        ::getsockopt(descriptor, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) == 0 &&
        domain == AF_NETLINK && protocol == NETLINK_NETFILTER) {
      ::dup3(nothing.get(), descriptor, O_CLOEXEC);
    }
  }
}

class AliveKeeperTest : public ::testing::Test {
 protected:
  AliveKeeper::Options options() {
    return {.install = &install, .log = log_, .onRefreshed = [this] { refreshed_.release(); }};
  }
  bool isRefreshed() { return refreshed_.try_acquire_for(kGenerous); }

  std::counting_semaphore<> refreshed_{0};
  const std::shared_ptr<KeptLog> log_ = std::make_shared<KeptLog>();
};

TEST_F(AliveKeeperTest, RefreshesOnABeat) {
  AliveKeeper keeper(installTable(), options());
  keeper.beat();
  EXPECT_TRUE(isRefreshed());
  EXPECT_TRUE(log_->lines().empty());
}

TEST_F(AliveKeeperTest, DoesNotRefreshWithoutABeat) {
  {
    AliveKeeper keeper(installTable(), options());
    // The elements expire, which they would not if they were refreshed.
    const auto deadline = std::chrono::steady_clock::now() + kGenerous;
    while (outputOf("nft list set inet ostravel alive").find("elements") != std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
    }
    EXPECT_LT(std::chrono::steady_clock::now(), deadline);
  }
  EXPECT_FALSE(refreshed_.try_acquire());
}

TEST_F(AliveKeeperTest, RemovesTheTableWhileConnectionTrackingIsFull) {
  std::atomic<bool> hasRoom = true;
  auto changed = options();
  changed.hasRoom = [&hasRoom] { return hasRoom.load(); };
  AliveKeeper keeper(installTable(), std::move(changed));
  keeper.beat();
  EXPECT_TRUE(isRefreshed());
  hasRoom = false;
  for (int beat = 0; beat < 2; ++beat) {
    keeper.beat();
    // The process is alive.
    EXPECT_TRUE(isRefreshed());
    EXPECT_EQ(outputOf("nft list ruleset"), "");
  }
  ASSERT_EQ(log_->lines().size(), 1U);
  EXPECT_NE(log_->lines()[0].find("nearly full"), std::string::npos);
  hasRoom = true;
  keeper.beat();
  EXPECT_TRUE(isRefreshed());
  EXPECT_NE(outputOf("nft list ruleset"), "");
  EXPECT_EQ(log_->lines().size(), 2U);
}

TEST_F(AliveKeeperTest, RemovesTheTableAtTheEnd) {
  { const AliveKeeper keeper(installTable(), {.install = &install, .log = log_}); }
  EXPECT_EQ(outputOf("nft list ruleset"), "");
}

TEST_F(AliveKeeperTest, RemovesTheTableWhenAsked) {
  AliveKeeper keeper(installTable(), {.install = &install, .log = log_});
  keeper.removeTable();
  EXPECT_EQ(outputOf("nft list ruleset"), "");
}

TEST_F(AliveKeeperTest, SurvivesAFlushByAnotherProcess) {
  AliveKeeper keeper(installTable(), options());
  const std::string before = outputOf("nft --stateless list chain inet ostravel refuse");
  outputOf("nft flush ruleset");
  EXPECT_EQ(outputOf("nft --stateless list chain inet ostravel refuse"), before);
  keeper.beat();
  EXPECT_TRUE(isRefreshed());
  EXPECT_TRUE(log_->lines().empty());
}

TEST_F(AliveKeeperTest, ReinstallsALostTable) {
  AliveKeeper keeper(installTable(), options());
  const std::string before = outputOf("nft --stateless list chain inet ostravel refuse");
  breakNetfilterSockets();
  EXPECT_EQ(outputOf("nft list ruleset"), "");
  keeper.beat();
  EXPECT_TRUE(isRefreshed());
  EXPECT_EQ(outputOf("nft --stateless list chain inet ostravel refuse"), before);
  keeper.beat();
  EXPECT_TRUE(isRefreshed());
  const auto lines = log_->lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(lines[0].starts_with("OstravelProxy: the interception could not be kept alive: "))
      << lines[0];
  EXPECT_EQ(lines[1], "OstravelProxy: Rules installed again");
}

TEST_F(AliveKeeperTest, KeepsTryingAndLogsEachFailureOnce) {
  std::atomic<int> attempts = 0;
  std::counting_semaphore<> attempted{0};
  auto changed = options();
  changed.install = [&]() -> platform::Result<std::unique_ptr<InterceptionTable>> {
    const int attempt = ++attempts;
    attempted.release();
    if (attempt < 5) {
      return platform::Error{"test", 1, attempt < 3 ? "first reason" : "second reason"};
    }
    return install();
  };
  AliveKeeper keeper(installTable(), std::move(changed));
  breakNetfilterSockets();
  for (int i = 0; i < 5; ++i) {
    keeper.beat();
    attempted.acquire();
  }
  EXPECT_TRUE(isRefreshed());
  EXPECT_FALSE(refreshed_.try_acquire());
  const auto lines = log_->lines();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[1], "OstravelProxy: first reason");
  EXPECT_EQ(lines[2], "OstravelProxy: second reason");
  EXPECT_EQ(lines[3], "OstravelProxy: Rules installed again");
  // A new failure gets a new line.
  breakNetfilterSockets();
  keeper.beat();
  EXPECT_TRUE(isRefreshed());
  EXPECT_EQ(log_->lines().size(), 6U);
}

TEST_F(AliveKeeperTest, EndsWithoutATable) {
  auto changed = options();
  changed.install = []() -> platform::Result<std::unique_ptr<InterceptionTable>> {
    return platform::Error{"test", 1, "never"};
  };
  AliveKeeper keeper(installTable(), std::move(changed));
  breakNetfilterSockets();
  keeper.beat();
  keeper.removeTable();
  EXPECT_EQ(outputOf("nft list ruleset"), "");
}

}  // namespace
}  // namespace ostravel::linuxplatform
