#import "Platform/macOS/Foundation/CoreFoundationTextServices.h"

#import <Foundation/Foundation.h>

#include "Base/UTF8.h"
#import "Platform/macOS/Foundation/FoundationText.h"
#import "Platform/macOS/Foundation/Reference.h"

namespace ostravel::macos {

namespace {

// All white space is in the Basic Multilingual Plane.
bool isWhiteSpace(const CodePoint& character, NSCharacterSet* whiteSpace) {
  return character.valid && character.value <= 0xFFFF &&
         [whiteSpace characterIsMember:static_cast<unichar>(character.value)];
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
    while (!text.empty() && isWhiteSpace(firstCodePoint(text), whiteSpace)) {
      text.remove_prefix(firstCodePoint(text).size);
    }
    while (!text.empty() && isWhiteSpace(lastCodePoint(text), whiteSpace)) {
      text.remove_suffix(lastCodePoint(text).size);
    }
    return text;
  }
}

}  // namespace ostravel::macos
