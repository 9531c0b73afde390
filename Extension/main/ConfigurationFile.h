#pragma once

#include <optional>
#include <string>

#include "Platform/Interface/Log.h"
#include "Platform/Interface/ProviderConfiguration.h"
#include "Platform/Interface/Result.h"

namespace ostravel::linuxplatform {

// Reads a provider configuration from a file that contains one JSON object (RFC 8259). The error
// names the file and, for text that is not such an object, line and column. Values of unused types
// are kept.
platform::Result<platform::ProviderConfiguration> readConfigurationFile(const std::string& path);

// The provider's configuration: from path, or from the default file if there is no path, which need
// not exist.
platform::Result<std::optional<platform::ProviderConfiguration>> readProviderConfiguration(
    const std::optional<std::string>& path);

// The level of the key "logLevel"; absent without the key, or if its value is not one.
std::optional<platform::LogLevel> logLevelOf(
    const std::optional<platform::ProviderConfiguration>& configuration);

// Read by the process entry; the provider ignores it.
inline constexpr const char* kLogLevelKey = "logLevel";

inline constexpr const char* kDefaultConfigurationPath =
    "/etc/ostravel/provider-configuration.json";

}  // namespace ostravel::linuxplatform
