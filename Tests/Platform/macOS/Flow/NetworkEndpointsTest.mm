#import "Platform/macOS/Flow/NetworkEndpoints.h"

#include <gtest/gtest.h>

#import "Tests/Platform/macOS/Support/PoolTest.h"
#import "Tests/StandInMac/StandInNetworkExtension.h"

namespace ostravel::macos::test {
namespace {

class NetworkEndpointsTest : public PoolTest {};

TEST_F(NetworkEndpointsTest, AHostEndpointKeepsItsParts) {
  const platform::HostEndpoint endpoint{"2001:db8::1", "443"};
  EXPECT_EQ(hostEndpointFrom(makeNWHostEndpoint(endpoint)), endpoint);
}

TEST_F(NetworkEndpointsTest, MissingAndForeignEndpointsAreAbsent) {
  EXPECT_FALSE(hostEndpointFrom(nil));
  EXPECT_FALSE(hostEndpointFrom(standin::makeOtherEndpoint()));
}

TEST_F(NetworkEndpointsTest, AnEndpointWithoutPartsHasEmptyOnes) {
  EXPECT_EQ(hostEndpointFrom(standin::makeHostEndpoint(nil, nil)),
            (platform::HostEndpoint{"", ""}));
}

}  // namespace
}  // namespace ostravel::macos::test
