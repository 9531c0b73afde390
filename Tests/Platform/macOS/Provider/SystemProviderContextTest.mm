#import "Platform/macOS/Provider/SystemProviderContext.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>

#import "Platform/macOS/Foundation/FoundationError.h"
#import "Tests/StandInMac/StandInNetworkExtension.h"
#include "Tests/StandInMac/SystemBehaviour.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::macos::test {
namespace {

using testing::waitUntil;

// The context of a provider object that only the test holds.
class SystemProviderContextTest : public ::testing::Test {
 protected:
  using Provider = Reference<NETransparentProxyProvider*>;

  SystemProviderContextTest()
      : provider_(Provider::adopting([[NETransparentProxyProvider alloc] init])),
        context_(provider_.get()) {}
  ~SystemProviderContextTest() override { [pool_ release]; }

  void apply() {
    context_.setTunnelNetworkSettings(platform::TransparentProxyNetworkSettings("127.0.0.1"),
                                      [this](platform::OptionalError error) {
                                        error_ = std::move(error);
                                        thread_ = std::this_thread::get_id();
                                        ++answers_;
                                      });
  }
  bool awaitAnswer() {
    return waitUntil([this] { return answers_ == 1; });
  }

  NSAutoreleasePool* const pool_ = [[NSAutoreleasePool alloc] init];
  Provider provider_;
  SystemProviderContext context_;
  platform::OptionalError error_;
  std::thread::id thread_;
  std::atomic<int> answers_ = 0;
};

TEST_F(SystemProviderContextTest, SettingsAreAnsweredWithTheSystemsError) {
  standin::failSettings(provider_.get(), [NSError errorWithDomain:@"Domain" code:4 userInfo:nil]);
  apply();
  ASSERT_TRUE(awaitAnswer());
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->code, 4);
}

TEST_F(SystemProviderContextTest, SettingsAreNeverAnsweredInsideTheCall) {
  const standin::BehaviourScope behaviour({.answersSettingsInsideTheCall = true});
  apply();
  ASSERT_TRUE(awaitAnswer());
  EXPECT_FALSE(error_);
  EXPECT_NE(thread_, std::this_thread::get_id());
}

TEST_F(SystemProviderContextTest, SettingsMayBeAnsweredAfterTheProviderIsDestroyed) {
  const auto hold = standin::holdSettings(provider_.get());
  apply();
  provider_ = {};
  EXPECT_EQ(answers_, 0);
  hold->letGo();
  EXPECT_TRUE(awaitAnswer());
}

TEST_F(SystemProviderContextTest, TheLastReferenceMayBeReleasedInsideTheCall) {
  for (const bool answersInside : {false, true}) {
    const standin::BehaviourScope behaviour({.answersSettingsInsideTheCall = answersInside});
    auto provider = Provider::adopting([[NETransparentProxyProvider alloc] init]);
    SystemProviderContext context(provider.get());
    standin::onSettings(provider.get(), [&provider] { provider = {}; });
    std::atomic<bool> isAnswered = false;
    context.setTunnelNetworkSettings(platform::TransparentProxyNetworkSettings("127.0.0.1"),
                                     [&isAnswered](const auto&) { isAnswered = true; });
    EXPECT_TRUE(waitUntil([&isAnswered] { return isAnswered.load(); }));
    EXPECT_FALSE(context.protocolConfiguration());
  }
}

// The system may call back into the core, which calls the context again.
TEST_F(SystemProviderContextTest, AnOperationMayBeCalledInsideAnother) {
  bool wasAsked = false;
  standin::onSettings(provider_.get(), [&] {
    EXPECT_FALSE(context_.protocolConfiguration());
    wasAsked = true;
  });
  apply();
  EXPECT_TRUE(wasAsked);
  EXPECT_TRUE(awaitAnswer());
}

TEST_F(SystemProviderContextTest, WithoutItsProviderItFailsEverything) {
  provider_ = {};
  apply();
  ASSERT_TRUE(awaitAnswer());
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->domain, platform::kPOSIXErrorDomain);
  EXPECT_EQ(error_->code, ECANCELED);
  EXPECT_FALSE(context_.protocolConfiguration());
  const auto connection =
      context_.createTCPConnection({"127.0.0.1", "8080"}, platform::TLSPolicy::disabled);
  EXPECT_EQ(connection->state(), platform::TCPConnectionState::invalid);
}

TEST_F(SystemProviderContextTest, MayBeCalledWhileTheProviderIsDestroyed) {
  for (int i = 0; i < 100; ++i) {
    auto provider = Provider::adopting([[NETransparentProxyProvider alloc] init]);
    standin::setProtocolConfiguration(provider.get(),
                                      [[[NETunnelProviderProtocol alloc] init] autorelease]);
    SystemProviderContext context(provider.get());
    std::thread reader([&context] {
      while (context.protocolConfiguration()) {
      }
    });
    provider = {};
    reader.join();
  }
}

}  // namespace
}  // namespace ostravel::macos::test
