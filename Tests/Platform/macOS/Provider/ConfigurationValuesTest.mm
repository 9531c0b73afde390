#import "Platform/macOS/Provider/ConfigurationValues.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#import "Tests/Platform/macOS/Support/PoolTest.h"

namespace ostravel::macos::test {
namespace {

class ConfigurationValuesTest : public PoolTest {};

TEST_F(ConfigurationValuesTest, AConfigurationKeepsTextNumbersAndTruthValues) {
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

TEST_F(ConfigurationValuesTest, OtherValuesKeepTheirKeysOnly) {
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

TEST_F(ConfigurationValuesTest, KeysThatAreNotTextAreLeftOut) {
  NSDictionary* const dictionary = [NSDictionary dictionaryWithObject:@"value"
                                                               forKey:[NSNumber numberWithInt:1]];
  EXPECT_EQ(configurationFrom(dictionary), platform::ProviderConfiguration());
}

TEST_F(ConfigurationValuesTest, NoConfigurationIsNotAnEmptyOne) {
  EXPECT_FALSE(configurationFrom(nil));
  EXPECT_TRUE(configurationFrom([NSDictionary dictionary]));
}

}  // namespace
}  // namespace ostravel::macos::test
