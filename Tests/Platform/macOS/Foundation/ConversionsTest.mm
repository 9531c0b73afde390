#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#import "Platform/macOS/Flow/NetworkEndpoints.h"
#import "Platform/macOS/Foundation/FoundationData.h"
#import "Platform/macOS/Foundation/FoundationError.h"
#import "Platform/macOS/Foundation/FoundationText.h"
#import "Platform/macOS/Provider/ConfigurationValues.h"
#import "Tests/StandInMac/ErrorWithoutText.h"
#import "Tests/StandInMac/StandInNetworkExtension.h"

namespace ostravel::macos::test {
namespace {

// A pool around each test, as the system has one around each of its calls.
class ConversionsTest : public testing::Test {
 protected:
  ~ConversionsTest() override { [pool_ release]; }

 private:
  NSAutoreleasePool* const pool_ = [[NSAutoreleasePool alloc] init];
};

// Text

TEST_F(ConversionsTest, TextKeepsEveryCharacter) {
  for (const auto& text : {std::string(), std::string("com.example.app"), std::string("a\0b", 3),
                           std::string("\u00fc\u6f22\U0001F600")}) {
    EXPECT_EQ(textOf(makeString(text)), text);
  }
}

TEST_F(ConversionsTest, NoTextIsEmptyText) {
  EXPECT_EQ(textOf(nil), "");
}

TEST_F(ConversionsTest, TextWithoutAUTF8FormIsEmpty) {
  const unichar surrogate = 0xD800;
  EXPECT_EQ(textOf([NSString stringWithCharacters:&surrogate length:1]), "");
}

TEST_F(ConversionsTest, BytesThatAreNotUTF8StillMakeAString) {
  EXPECT_EQ(textOf(makeString("a\xff")), "a\u00ff");
}

// Errors

TEST_F(ConversionsTest, AnErrorKeepsItsDomainCodeAndDescription) {
  NSError* const error =
      [NSError errorWithDomain:NEAppProxyErrorDomain
                          code:NEAppProxyFlowErrorPeerReset
                      userInfo:[NSDictionary dictionaryWithObject:@"reset"
                                                           forKey:NSLocalizedDescriptionKey]];
  const platform::Error expected{"NEAppProxyFlowErrorDomain", 2, "reset"};
  EXPECT_EQ(errorFrom(error), expected);
  EXPECT_EQ(errorFrom(makeNSError(expected)), expected);
}

TEST_F(ConversionsTest, AnErrorOfTheSystemComesBackAsTheSameObject) {
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

TEST_F(ConversionsTest, AnErrorObjectGivenBackOutlivesItsValue) {
  auto value = errorFrom([NSError errorWithDomain:@"Domain" code:7 userInfo:nil]);
  NSError* const given = makeNSError(value);
  value.reset();
  EXPECT_EQ([given code], 7);
}

TEST_F(ConversionsTest, NoErrorIsNoError) {
  EXPECT_FALSE(errorFrom(nil));
  EXPECT_EQ(makeNSError(std::nullopt), nil);
}

TEST_F(ConversionsTest, AnErrorWithoutDescriptionHasAnEmptyOne) {
  NSError* const error = [ErrorWithoutText errorWithDomain:@"Domain" code:-1 userInfo:nil];
  EXPECT_EQ(errorFrom(error), (platform::Error{"Domain", -1, ""}));
}

TEST_F(ConversionsTest, TheUserInformationHoldsTheDescriptionAndNothingElse) {
  NSError* const error = makeNSError(platform::Error{"OstravelProxy", 1002, "timed out"});
  EXPECT_EQ([[error userInfo] count], 1U);
  EXPECT_EQ(textOf([[error userInfo] objectForKey:NSLocalizedDescriptionKey]), "timed out");
}

TEST_F(ConversionsTest, WithoutADescriptionTheSystemWordsIt) {
  NSError* const error = makeNSError(platform::Error{"NSPOSIXErrorDomain", 61, ""});
  EXPECT_EQ([[error userInfo] count], 0U);
  EXPECT_GT([[error localizedDescription] length], 0U);
}

// Data

TEST_F(ConversionsTest, AChunkIsNotCopiedOnItsWayThrough) {
  NSData* const data = [NSData dataWithBytes:"hello" length:5];
  const auto chunk = dataFrom(data);
  ASSERT_TRUE(chunk);
  EXPECT_EQ(chunk->size(), 5U);
  EXPECT_EQ(static_cast<const void*>(chunk->bytes().data()), [data bytes]);
  EXPECT_EQ(makeNSData(*chunk), data);
}

TEST_F(ConversionsTest, AChunkKeepsItsObject) {
  NSData* const data = [[NSData alloc] initWithBytes:"hello" length:5];
  const auto chunk = dataFrom(data);
  [data release];
  EXPECT_EQ(static_cast<char>(chunk->bytes().back()), 'o');
}

TEST_F(ConversionsTest, AnObjectGivenBackOutlivesItsChunk) {
  NSData* const data = [[NSData alloc] initWithBytes:"hello" length:5];
  auto chunk = dataFrom(data);
  [data release];
  NSData* const given = makeNSData(*chunk);
  chunk.reset();
  EXPECT_EQ([given length], 5U);
}

TEST_F(ConversionsTest, NoDataIsNotEmptyData) {
  EXPECT_FALSE(dataFrom(nil));
  ASSERT_TRUE(dataFrom([NSData data]));
  EXPECT_TRUE(dataFrom([NSData data])->empty());
}

TEST_F(ConversionsTest, OtherChunksAreCopied) {
  NSData* const data = makeNSData(platform::Data::copyOf("hello"));
  EXPECT_TRUE([data isEqualToData:[NSData dataWithBytes:"hello" length:5]]);
  EXPECT_EQ([makeNSData(platform::Data()) length], 0U);
}

// Endpoints

TEST_F(ConversionsTest, AHostEndpointKeepsItsParts) {
  const platform::HostEndpoint endpoint{"2001:db8::1", "443"};
  EXPECT_EQ(hostEndpointFrom(makeNWHostEndpoint(endpoint)), endpoint);
}

TEST_F(ConversionsTest, NoEndpointAndAnotherKindAreAbsent) {
  EXPECT_FALSE(hostEndpointFrom(nil));
  EXPECT_FALSE(hostEndpointFrom(standin::makeOtherEndpoint()));
}

TEST_F(ConversionsTest, AnEndpointWithoutPartsHasEmptyOnes) {
  EXPECT_EQ(hostEndpointFrom(standin::makeHostEndpoint(nil, nil)),
            (platform::HostEndpoint{"", ""}));
}

// Configuration

TEST_F(ConversionsTest, AConfigurationKeepsTextNumbersAndTruthValues) {
  NSDictionary* const dictionary = @{
    @"text" : @"value",
    @"empty" : @"",
    @"integer" : [NSNumber numberWithInt:-5],
    @"one" : [NSNumber numberWithInt:1],
    @"large" : [NSNumber numberWithLongLong:INT64_MAX],
    @"real" : [NSNumber numberWithDouble:1.5],
    @"yes" : [NSNumber numberWithBool:YES],
    @"no" : [NSNumber numberWithBool:NO],
  };
  const platform::ProviderConfiguration expected{
      {"text", std::string("value")},
      {"empty", std::string()},
      {"integer", std::int64_t{-5}},
      {"one", std::int64_t{1}},
      {"large", std::int64_t{INT64_MAX}},
      {"real", 1.5},
      {"yes", true},
      {"no", false},
  };
  EXPECT_EQ(configurationFrom(dictionary), expected);
}

TEST_F(ConversionsTest, OtherValuesAreThereWithoutTheirContents) {
  NSDictionary* const dictionary = @{
    @"null" : [NSNull null],
    @"list" : [NSArray array],
    @"data" : [NSData data],
    @"nested" : [NSDictionary dictionary],
  };
  const auto configuration = configurationFrom(dictionary);
  ASSERT_TRUE(configuration);
  EXPECT_EQ(configuration->size(), 4U);
  for (const auto& [key, value] : *configuration) {
    EXPECT_EQ(value, platform::ConfigurationValue(platform::OtherConfigurationValue())) << key;
  }
}

TEST_F(ConversionsTest, KeysThatAreNotTextAreLeftOut) {
  NSDictionary* const dictionary = [NSDictionary dictionaryWithObject:@"value"
                                                               forKey:[NSNumber numberWithInt:1]];
  EXPECT_EQ(configurationFrom(dictionary), platform::ProviderConfiguration());
}

TEST_F(ConversionsTest, NoConfigurationIsNotAnEmptyOne) {
  EXPECT_FALSE(configurationFrom(nil));
  EXPECT_TRUE(configurationFrom([NSDictionary dictionary]));
}

}  // namespace
}  // namespace ostravel::macos::test
