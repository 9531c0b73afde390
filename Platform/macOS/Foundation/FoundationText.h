#pragma once

#import <Foundation/Foundation.h>

#include <string>
#include <string_view>

namespace ostravel::macos {

// Autoreleased, never nil: bytes that are not UTF-8 are read as ISO Latin 1, which takes any.
NSString* makeString(std::string_view text);

// UTF-8; empty for nil and for a string that has no UTF-8 form (an unpaired surrogate).
std::string textOf(NSString* string);

}  // namespace ostravel::macos
