#pragma once

#import <Foundation/Foundation.h>

#include "Platform/Interface/Error.h"

namespace ostravel::macos {

// The error with which to close a flow. The system requires one of NEAppProxyErrorDomain, which it
// translates for the application. An error of that domain is unchanged; any other becomes the
// nearest one of that domain, with the same description and the original as NSUnderlyingErrorKey.
// Autoreleased; nil for no error.
NSError* makeFlowError(const platform::OptionalError& error);

}  // namespace ostravel::macos
