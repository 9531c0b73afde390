#include "Platform/Linux/LinuxProviderContext.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Interface/ProviderError.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Tests/Platform/Linux/Support/FailingCalls.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Support/CommandOutput.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform {
namespace {

using platform::OptionalError;
using testing::loopbackSettings;
using testing::outputOf;
using testing::tcpRule;

class LinuxProviderContextTest : public ::testing::Test {
 protected:
  LinuxProviderContextTest() { heartbeat_.start(); }
  ~LinuxProviderContextTest() override {
    context_.stopInterception();
    heartbeat_.stop();
    loops_.stop();
  }

  Interceptor::Environment environment() {
    return {.loops = loops_,
            .descriptors = descriptors_,
            .heartbeat = heartbeat_,
            .journal = journal_,
            .onAlive = nullptr,
            .proxyUsers = {}};
  }

  OptionalError apply(platform::TransparentProxyNetworkSettings settings) {
    std::promise<OptionalError> completed;
    context_.setTunnelNetworkSettings(
        std::move(settings), [&completed](OptionalError error) { completed.set_value(error); });
    return completed.get_future().get();
  }

  LinuxPlatform platform_{{}};
  DescriptorBudget descriptors_{10'000};
  EventLoopGroup loops_{descriptors_, 1};
  FlowJournal journal_{platform_.clock(), loops_.size()};
  HeartbeatRecord record_;
  Heartbeat heartbeat_{record_};
  LinuxProviderContext context_{platform_, environment(),
                                platform::ProviderConfiguration{{"key", std::string("value")}}};
};

TEST_F(LinuxProviderContextTest, SettingsInstallTheRules) {
  EXPECT_EQ(apply(loopbackSettings()), std::nullopt);
  EXPECT_EQ(outputOf("nft list tables"), "table inet ostravel\ntable inet ostravel-translation\n");
}

TEST_F(LinuxProviderContextTest, LaterSettingsReplaceEarlierOnes) {
  ASSERT_EQ(apply(loopbackSettings()), std::nullopt);
  platform::TransparentProxyNetworkSettings others("127.0.0.1");
  others.includedNetworkRules = {tcpRule("192.0.2.1", "81", 32)};
  EXPECT_EQ(apply(others), std::nullopt);
  const std::string rules = outputOf("nft list chain inet ostravel offer");
  EXPECT_NE(rules.find("dport 81"), std::string::npos);
  EXPECT_EQ(rules.find("dport 8000"), std::string::npos);
}

TEST_F(LinuxProviderContextTest, BadSettingsCompleteWithTheReason) {
  platform::TransparentProxyNetworkSettings settings("127.0.0.1");
  settings.includedNetworkRules = {tcpRule("not an address", "80", 32)};
  const auto error = apply(settings);
  ASSERT_TRUE(error);
  EXPECT_EQ(
      error->localizedDescription,
      "network rule for \"not an address\" port \"80\": the network is not an address literal");
  EXPECT_EQ(outputOf("nft list tables"), "");
}

TEST_F(LinuxProviderContextTest, NothingIsInterceptedAfterTheStop) {
  ASSERT_EQ(apply(loopbackSettings()), std::nullopt);
  context_.stopInterception();
  EXPECT_EQ(outputOf("nft list tables"), "");
  const auto error = apply(loopbackSettings());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, platform::kStoppingCode);
  EXPECT_EQ(outputOf("nft list tables"), "");
}

TEST_F(LinuxProviderContextTest, TheProviderFindsItsConfiguration) {
  const auto found = context_.protocolConfiguration();
  ASSERT_TRUE(found);
  ASSERT_TRUE(found->providerConfiguration);
  EXPECT_EQ(std::get<std::string>(found->providerConfiguration->at("key")), "value");
}

TEST_F(LinuxProviderContextTest, KnowsNothingOfApplicationsWithoutInterception) {
  EXPECT_FALSE(context_.inspect(::getpid(), std::nullopt));
  ASSERT_EQ(apply(loopbackSettings()), std::nullopt);
  const auto program = std::filesystem::read_symlink("/proc/self/exe").string();
  // On a busy machine an executable may be found late.
  EXPECT_TRUE(testing::waitUntil([&] {
    const auto inspection = context_.inspect(::getpid(), std::nullopt);
    return inspection && inspection->application && inspection->application->identifier == program;
  }));
}

// The queue's threads are started by the thread whose calls fail.
TEST_F(LinuxProviderContextTest, LackOfDescriptorsIsAnError) {
  testing::withFailingCalls({SYS_eventfd2}, EMFILE, [this] {
    LinuxPlatform platform{{}};
    LinuxProviderContext context(platform, environment(), std::nullopt);
    std::promise<OptionalError> completed;
    context.setTunnelNetworkSettings(
        loopbackSettings(), [&completed](OptionalError error) { completed.set_value(error); });
    const auto error = completed.get_future().get();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, EMFILE);
    EXPECT_FALSE(context.isIntercepting());
    EXPECT_EQ(outputOf("nft list tables"), "");
  });
}

}  // namespace
}  // namespace ostravel::linuxplatform
