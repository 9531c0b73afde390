#pragma once

#include <optional>
#include <string>

#include "Platform/Interface/ProviderConfiguration.h"
#include "Platform/Interface/Result.h"

namespace ostravel::linuxplatform {

// Reads a provider configuration from a file that holds one JSON object (RFC 8259). The error names
// the file and, for text that is not such an object, line and column. Values of types that the
// configuration has no use for are kept as such.
platform::Result<platform::ProviderConfiguration> readConfigurationFile(const std::string& path);

// The configuration that the provider finds: that of path, or without a path that of the default
// file, which need not exist.
platform::Result<std::optional<platform::ProviderConfiguration>> readProviderConfiguration(
    const std::optional<std::string>& path);

inline constexpr const char* kDefaultConfigurationPath =
    "/etc/ostravel/provider-configuration.json";

}  // namespace ostravel::linuxplatform
