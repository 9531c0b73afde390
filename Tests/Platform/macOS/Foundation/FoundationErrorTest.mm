#import "Platform/macOS/Foundation/FoundationError.h"

#import <NetworkExtension/NetworkExtension.h>
#include <gtest/gtest.h>

#import "Platform/macOS/Foundation/FoundationText.h"
#import "Tests/Platform/macOS/Support/PoolTest.h"
#import "Tests/StandInMac/ErrorWithoutText.h"

namespace ostravel::macos::test {
namespace {

class FoundationErrorTest : public PoolTest {};

TEST_F(FoundationErrorTest, AnErrorKeepsItsDomainCodeAndDescription) {
  NSError* const error =
      [NSError errorWithDomain:NEAppProxyErrorDomain
                          code:NEAppProxyFlowErrorPeerReset
                      userInfo:[NSDictionary dictionaryWithObject:@"reset"
                                                           forKey:NSLocalizedDescriptionKey]];
  const platform::Error expected{"NEAppProxyFlowErrorDomain", 2, "reset"};
  EXPECT_EQ(errorFrom(error), expected);
  EXPECT_EQ(errorFrom(makeNSError(expected)), expected);
}

TEST_F(FoundationErrorTest, ASystemErrorConvertsBackToTheSameObject) {
  NSError* const underlying = [NSError errorWithDomain:NSPOSIXErrorDomain code:61 userInfo:nil];
  NSError* const error = [[NSError alloc]
      initWithDomain:NETunnelProviderErrorDomain
                code:1
            userInfo:[NSDictionary dictionaryWithObject:underlying forKey:NSUnderlyingErrorKey]];
  const auto value = errorFrom(error);
  [error release];
  EXPECT_EQ(makeNSError(value), error);
  EXPECT_EQ([[makeNSError(value) userInfo] objectForKey:NSUnderlyingErrorKey], underlying);
}

TEST_F(FoundationErrorTest, AReturnedErrorObjectOutlivesItsValue) {
  auto value = errorFrom([NSError errorWithDomain:@"Domain" code:7 userInfo:nil]);
  NSError* const given = makeNSError(value);
  value.reset();
  EXPECT_EQ([given code], 7);
}

TEST_F(FoundationErrorTest, NoErrorConvertsToNoError) {
  EXPECT_FALSE(errorFrom(nil));
  EXPECT_EQ(makeNSError(std::nullopt), nil);
}

TEST_F(FoundationErrorTest, AnErrorWithoutDescriptionHasAnEmptyOne) {
  NSError* const error = [ErrorWithoutText errorWithDomain:@"Domain" code:-1 userInfo:nil];
  EXPECT_EQ(errorFrom(error), (platform::Error{"Domain", -1, ""}));
}

TEST_F(FoundationErrorTest, TheUserInfoHoldsOnlyTheDescription) {
  NSError* const error = makeNSError(platform::Error{"OstravelProxy", 1002, "timed out"});
  EXPECT_EQ([[error userInfo] count], 1U);
  EXPECT_EQ(textOf([[error userInfo] objectForKey:NSLocalizedDescriptionKey]), "timed out");
}

TEST_F(FoundationErrorTest, TheSystemDescribesAnErrorWithoutADescription) {
  NSError* const error = makeNSError(platform::Error{"NSPOSIXErrorDomain", 61, ""});
  EXPECT_EQ([[error userInfo] count], 0U);
  EXPECT_GT([[error localizedDescription] length], 0U);
}

}  // namespace
}  // namespace ostravel::macos::test
