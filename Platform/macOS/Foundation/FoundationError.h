#pragma once

#import <Foundation/Foundation.h>

#include "Platform/Interface/Error.h"

namespace ostravel::macos {

// Absent for nil. A missing domain or description becomes an empty one.
platform::OptionalError errorFrom(NSError* error);

// Autoreleased; nil for no error. The user information holds the description and nothing else, and
// is empty without one, so that the system words it.
NSError* makeNSError(const platform::OptionalError& error);

}  // namespace ostravel::macos
