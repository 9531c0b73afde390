#import "Platform/macOS/Flow/SystemUDPFlow.h"

#include <gtest/gtest.h>

#import "Tests/StandInMac/StandInNetworkExtension.h"

namespace ostravel::macos::test {
namespace {

TEST(SystemUDPFlowTest, AUDPFlowIsKnownByItsLocalEndpoint) {
  @autoreleasepool {
    SystemUDPFlow flow(standin::makeUDPFlow({.endpoint = standin::makeHostEndpoint(@"::1", @"9")}));
    EXPECT_EQ(flow.localEndpoint(), (platform::HostEndpoint{"::1", "9"}));
    SystemUDPFlow other(standin::makeUDPFlow({.endpoint = nil}));
    EXPECT_FALSE(other.localEndpoint());
  }
}

}  // namespace
}  // namespace ostravel::macos::test
