#import "Platform/macOS/Flow/FlowError.h"

#import <NetworkExtension/NetworkExtension.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <utility>
#include <vector>

#import "Platform/macOS/Foundation/FoundationError.h"
#import "Platform/macOS/Foundation/FoundationText.h"
#import "Tests/Platform/macOS/Support/PoolTest.h"

namespace ostravel::macos::test {
namespace {

class FlowErrorTest : public PoolTest {};

TEST_F(FlowErrorTest, NoErrorIsNone) {
  EXPECT_EQ(makeFlowError(std::nullopt), nil);
}

TEST_F(FlowErrorTest, AnErrorOfTheFlowDomainIsUnchanged) {
  const platform::Error error{textOf(NEAppProxyErrorDomain), NEAppProxyFlowErrorTimedOut, "late"};
  NSError* const made = makeFlowError(error);
  EXPECT_EQ(errorFrom(made), error);
  EXPECT_EQ([[made userInfo] objectForKey:NSUnderlyingErrorKey], nil);
}

TEST_F(FlowErrorTest, AnErrorNumberBecomesTheNearestFlowError) {
  const std::vector<std::pair<int, NEAppProxyFlowError>> expected{
      {ECONNRESET, NEAppProxyFlowErrorPeerReset},
      {EPIPE, NEAppProxyFlowErrorPeerReset},
      {EHOSTUNREACH, NEAppProxyFlowErrorHostUnreachable},
      {ENETUNREACH, NEAppProxyFlowErrorHostUnreachable},
      {ENETDOWN, NEAppProxyFlowErrorHostUnreachable},
      {EHOSTDOWN, NEAppProxyFlowErrorHostUnreachable},
      {ECONNREFUSED, NEAppProxyFlowErrorRefused},
      {ETIMEDOUT, NEAppProxyFlowErrorTimedOut},
      {ENOTCONN, NEAppProxyFlowErrorNotConnected},
      {ECANCELED, NEAppProxyFlowErrorAborted},
      {EIO, NEAppProxyFlowErrorAborted},
  };
  for (const auto& [number, code] : expected) {
    NSError* const made =
        makeFlowError(platform::Error{std::string(platform::kPOSIXErrorDomain), number, ""});
    EXPECT_TRUE([[made domain] isEqualToString:NEAppProxyErrorDomain]);
    EXPECT_EQ([made code], code) << number;
  }
}

TEST_F(FlowErrorTest, TheOriginalErrorIsTheUnderlyingOne) {
  const platform::Error error{"OstravelProxy", 1002, "Proxy CONNECT handshake timed out"};
  NSError* const made = makeFlowError(error);
  EXPECT_EQ([made code], NEAppProxyFlowErrorAborted);
  EXPECT_EQ(textOf([made localizedDescription]), error.localizedDescription);
  EXPECT_EQ(errorFrom([[made userInfo] objectForKey:NSUnderlyingErrorKey]), error);
}

TEST_F(FlowErrorTest, ASystemErrorIsTheUnderlyingObjectItself) {
  NSError* const original = [NSError errorWithDomain:NSPOSIXErrorDomain
                                                code:ECONNREFUSED
                                            userInfo:nil];
  NSError* const made = makeFlowError(errorFrom(original));
  EXPECT_EQ([[made userInfo] objectForKey:NSUnderlyingErrorKey], original);
}

TEST_F(FlowErrorTest, AnErrorWithoutADescriptionIsAccepted) {
  NSError* const made = makeFlowError(platform::Error{"Domain", 7, ""});
  EXPECT_EQ([[[made userInfo] objectForKey:NSUnderlyingErrorKey] code], 7);
}

}  // namespace
}  // namespace ostravel::macos::test
