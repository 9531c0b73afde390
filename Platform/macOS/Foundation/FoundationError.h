#pragma once

#import <Foundation/Foundation.h>

#include "Platform/Interface/Error.h"

namespace ostravel::macos {

// Absent for nil. A missing domain or description becomes an empty one. The error keeps the object.
platform::OptionalError errorFrom(NSError* error);

// Autoreleased; nil for no error. An error that errorFrom made gives its object back. For any other
// one the user information holds the description and nothing else, and is empty without one, so
// that the system words it.
NSError* makeNSError(const platform::OptionalError& error);

}  // namespace ostravel::macos
