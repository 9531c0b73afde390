#pragma once

#import <Foundation/Foundation.h>

#include <optional>

#include "Platform/Interface/ProviderConfiguration.h"

namespace ostravel::macos {

// Absent for nil. Text, numbers and truth values are kept; every other value becomes
// OtherConfigurationValue. Entries whose key is not text are skipped.
std::optional<platform::ProviderConfiguration> configurationFrom(NSDictionary* dictionary);

}  // namespace ostravel::macos
