#pragma once

#import <Foundation/Foundation.h>

#include "Platform/Interface/Error.h"

namespace ostravel::macos {

// The error to close a flow with. Apple asks for one of NEAppProxyErrorDomain, which it translates
// for the application. An error of that domain stays as it is; any other becomes the nearest one
// of it, with the same description and the original underneath (NSUnderlyingErrorKey).
// Autoreleased; nil for no error.
NSError* makeFlowError(const platform::OptionalError& error);

}  // namespace ostravel::macos
