#pragma once

#import <Foundation/Foundation.h>

#include <optional>

#include "Platform/Interface/Data.h"

namespace ostravel::macos {

// Keeps the object itself; the bytes are not copied. Absent for nil.
std::optional<platform::Data> dataFrom(NSData* data);

// Autoreleased. A chunk that dataFrom made returns its object; any other is copied.
NSData* makeNSData(const platform::Data& data);

}  // namespace ostravel::macos
