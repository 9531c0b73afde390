#import "Platform/macOS/Provider/ConfigurationValues.h"

#include <string_view>

#import "Platform/macOS/Foundation/FoundationText.h"

namespace ostravel::macos {

namespace {

using platform::ConfigurationValue;

ConfigurationValue numberFrom(NSNumber* number) {
  // A truth value is one of two constant objects; its type code is that of a small integer.
  if (number == [NSNumber numberWithBool:YES] || number == [NSNumber numberWithBool:NO]) {
    return static_cast<bool>([number boolValue]);
  }
  const std::string_view type = [number objCType];
  if (type == @encode(float) || type == @encode(double)) {
    return [number doubleValue];
  }
  return static_cast<std::int64_t>([number longLongValue]);
}

ConfigurationValue valueFrom(id object) {
  if ([object isKindOfClass:[NSString class]]) {
    return textOf(object);
  }
  if ([object isKindOfClass:[NSNumber class]]) {
    return numberFrom(object);
  }
  return platform::OtherConfigurationValue();
}

}  // namespace

std::optional<platform::ProviderConfiguration> configurationFrom(NSDictionary* dictionary) {
  if (dictionary == nil) {
    return std::nullopt;
  }
  platform::ProviderConfiguration configuration;
  for (id key in dictionary) {
    if ([key isKindOfClass:[NSString class]]) {
      configuration.insert_or_assign(textOf(key), valueFrom([dictionary objectForKey:key]));
    }
  }
  return configuration;
}

}  // namespace ostravel::macos
