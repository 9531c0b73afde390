#import "Platform/macOS/Flow/SystemTCPFlow.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <optional>

#import "Platform/macOS/Foundation/FoundationError.h"
#import "Tests/StandInMac/StandInNetworkExtension.h"
#include "Tests/StandInMac/StreamSocket.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::macos::test {
namespace {

using testing::waitUntil;

// A TCP flow whose application does nothing.
class SystemTCPFlowTest : public ::testing::Test {
 protected:
  SystemTCPFlowTest() : ends_(standin::makeStreamPair()) {}
  ~SystemTCPFlowTest() override {
    ::close(ends_.application);
    [pool_ release];
  }

  std::shared_ptr<SystemTCPFlow> makeTCPFlow(const standin::FlowDescription& description) {
    NEAppProxyTCPFlow* const flow = standin::makeTCPFlow(description, ends_.provider);
    record_ = standin::recordOf(flow);
    return std::make_shared<SystemTCPFlow>(flow);
  }

  const standin::StreamPair ends_;
  std::shared_ptr<standin::FlowRecord> record_;

 private:
  NSAutoreleasePool* const pool_ = [[NSAutoreleasePool alloc] init];
};

TEST_F(SystemTCPFlowTest, AMissingIdentifierIsEmpty) {
  EXPECT_EQ(makeTCPFlow({.signingIdentifier = nil})->sourceAppSigningIdentifier(), "");
}

TEST_F(SystemTCPFlowTest, MissingMetadataMeansAnEmptyIdentifier) {
  EXPECT_EQ(makeTCPFlow({.hasMetaData = false})->sourceAppSigningIdentifier(), "");
}

TEST_F(SystemTCPFlowTest, WhiteSpaceInAnIdentifierIsKept) {
  EXPECT_EQ(makeTCPFlow({.signingIdentifier = @" a\n"})->sourceAppSigningIdentifier(), " a\n");
}

TEST_F(SystemTCPFlowTest, OpensWithoutALocalEndpoint) {
  const auto flow = makeTCPFlow({});
  std::atomic<bool> isDone = false;
  flow->open(std::nullopt, [&isDone](const auto& error) {
    EXPECT_FALSE(error);
    isDone = true;
  });
  ASSERT_TRUE(waitUntil([&isDone] { return isDone.load(); }));
  EXPECT_EQ(record_->openedLocalEndpoint(), nil);
}

TEST_F(SystemTCPFlowTest, OpensWithALocalEndpoint) {
  const auto flow = makeTCPFlow({});
  std::atomic<bool> isDone = false;
  flow->open(platform::HostEndpoint{"192.0.2.1", "5000"},
             [&isDone](const auto&) { isDone = true; });
  ASSERT_TRUE(waitUntil([&isDone] { return isDone.load(); }));
  auto* const endpoint = static_cast<NWHostEndpoint*>(record_->openedLocalEndpoint());
  EXPECT_EQ(textOf([endpoint hostname]), "192.0.2.1");
  EXPECT_EQ(textOf([endpoint port]), "5000");
}

TEST_F(SystemTCPFlowTest, EachSideIsClosedWithItsOwnError) {
  const auto flow = makeTCPFlow({});
  flow->closeRead(std::nullopt);
  EXPECT_TRUE(record_->isReadClosed());
  EXPECT_FALSE(record_->isWriteClosed());
  flow->closeWrite(platform::Error{"OstravelProxy", 1001, "backlog"});
  EXPECT_EQ(record_->closeReadError(), nil);
  NSError* const error = record_->closeWriteError();
  EXPECT_TRUE([[error domain] isEqualToString:NEAppProxyErrorDomain]);
  EXPECT_EQ(errorFrom([[error userInfo] objectForKey:NSUnderlyingErrorKey]),
            (platform::Error{"OstravelProxy", 1001, "backlog"}));
}

TEST(SystemOtherFlowTest, ANilFlowIsHarmless) {
  SystemOtherFlow flow(nil);
  EXPECT_EQ(flow.sourceAppSigningIdentifier(), "");
  flow.closeRead(std::nullopt);
  flow.closeWrite(std::nullopt);
}

}  // namespace
}  // namespace ostravel::macos::test
