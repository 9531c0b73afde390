#pragma once

#import <Foundation/Foundation.h>

#include "Platform/Interface/Error.h"

namespace ostravel::macos {

// Absent for nil. A missing domain or description becomes an empty one. The error keeps the object.
platform::OptionalError errorFrom(NSError* error);

// Autoreleased; nil for no error. An error that errorFrom made returns its object. For any other
// one the user information contains only the description, or nothing without one, so that the
// system supplies it.
NSError* makeNSError(const platform::OptionalError& error);

}  // namespace ostravel::macos
