// Where the Foundation of this machine falls short of the Mac's.

#import "Tests/StandInMac/FoundationAdditions.h"

#include <unicode/ustring.h>

#include <cstdint>
#include <random>
#include <vector>

@implementation NSString (StandIn)

// Missing here. Full mapping, without the rules of any language for no locale.
- (NSString*)lowercaseStringWithLocale:(NSLocale*)locale {
  NSAssert(locale == nil, @"only without a locale");
  const auto length = static_cast<std::int32_t>([self length]);
  std::vector<unichar> text(static_cast<std::size_t>(length));
  [self getCharacters:text.data() range:NSMakeRange(0, [self length])];
  const auto* const source = reinterpret_cast<const UChar*>(text.data());
  // No mapping is longer than three units for one.
  std::vector<UChar> lower(static_cast<std::size_t>(length) * 3 + 1);
  UErrorCode status = U_ZERO_ERROR;
  const std::int32_t lowerLength = u_strToLower(
      lower.data(), static_cast<std::int32_t>(lower.size()), source, length, "", &status);
  return [NSString stringWithCharacters:reinterpret_cast<const unichar*>(lower.data())
                                 length:static_cast<NSUInteger>(lowerLength)];
}

@end

@interface NSUUID (StandIn)
@end

// Replacing the method is intended.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wobjc-protocol-method-implementation"
@implementation NSUUID (StandIn)

// The library's own leaves out the version and the variant.
+ (id)UUID {
  thread_local std::random_device device;
  unsigned char bytes[16];
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(device());
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0FU) | 0x40U);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3FU) | 0x80U);
  return [[[self alloc] initWithUUIDBytes:bytes] autorelease];
}

@end
#pragma clang diagnostic pop
