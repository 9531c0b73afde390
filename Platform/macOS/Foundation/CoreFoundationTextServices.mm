#import "Platform/macOS/Foundation/CoreFoundationTextServices.h"

#import <Foundation/Foundation.h>

#include <cstdint>

#import "Platform/macOS/Foundation/FoundationText.h"
#import "Platform/macOS/Foundation/Reference.h"

namespace ostravel::macos {

namespace {

bool isContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// The first and the last character of text, which is not empty, as its bytes (RFC 3629, section 3).
std::string_view firstCharacter(std::string_view text) {
  std::size_t length = 1;
  while (length < text.size() && isContinuation(text[length])) {
    ++length;
  }
  return text.substr(0, length);
}
std::string_view lastCharacter(std::string_view text) {
  std::size_t begin = text.size() - 1;
  while (begin > 0 && isContinuation(text[begin])) {
    --begin;
  }
  return text.substr(begin);
}

// White space takes three bytes at most; nothing longer is decoded.
bool isWhiteSpace(std::string_view character, NSCharacterSet* whiteSpace) {
  const auto byte = [character](std::size_t index) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(character[index]));
  };
  std::uint32_t value = byte(0);
  if (character.size() == 1 && value < 0x80U) {
    return [whiteSpace characterIsMember:static_cast<unichar>(value)];
  }
  if (character.size() == 2 && (value & 0xE0U) == 0xC0U) {
    value = (value & 0x1FU) << 6U | (byte(1) & 0x3FU);
    return [whiteSpace characterIsMember:static_cast<unichar>(value)];
  }
  if (character.size() == 3 && (value & 0xF0U) == 0xE0U) {
    value = (value & 0x0FU) << 12U | (byte(1) & 0x3FU) << 6U | (byte(2) & 0x3FU);
    return [whiteSpace characterIsMember:static_cast<unichar>(value)];
  }
  return false;
}

std::string lowercasedASCII(std::string_view text) {
  std::string result(text);
  for (char& byte : result) {
    if (byte >= 'A' && byte <= 'Z') {
      byte = static_cast<char>(byte - 'A' + 'a');
    }
  }
  return result;
}

}  // namespace

std::string CoreFoundationTextServices::lowercased(std::string_view text) const {
  @autoreleasepool {
    const auto string =
        Reference<NSString*>::adopting([[NSString alloc] initWithBytes:text.data()
                                                                length:text.size()
                                                              encoding:NSUTF8StringEncoding]);
    if (string.get() == nil) {
      return lowercasedASCII(text);
    }
    // No locale: the same in every language.
    return textOf([string.get() lowercaseStringWithLocale:nil]);
  }
}

std::string_view CoreFoundationTextServices::trimmed(std::string_view text) const {
  @autoreleasepool {
    NSCharacterSet* const whiteSpace = [NSCharacterSet whitespaceAndNewlineCharacterSet];
    while (!text.empty() && isWhiteSpace(firstCharacter(text), whiteSpace)) {
      text.remove_prefix(firstCharacter(text).size());
    }
    while (!text.empty() && isWhiteSpace(lastCharacter(text), whiteSpace)) {
      text.remove_suffix(lastCharacter(text).size());
    }
    return text;
  }
}

}  // namespace ostravel::macos
