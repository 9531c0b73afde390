#pragma once

#include <optional>
#include <string>
#include <variant>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/ProviderConfiguration.h"

namespace ostravel::linuxplatform {

// Reads a provider configuration from a file that holds one JSON object (RFC 8259). The error names
// the file and, for text that is not such an object, line and column. Values of types that the
// configuration has no use for are kept as such.
std::variant<platform::ProviderConfiguration, platform::Error> readConfigurationFile(
    const std::string& path);

// The configuration that the provider finds: that of path, or without a path that of the default
// file, which need not exist.
std::variant<std::optional<platform::ProviderConfiguration>, platform::Error>
readProviderConfiguration(const std::optional<std::string>& path);

inline constexpr const char* kDefaultConfigurationPath =
    "/etc/ostravel/provider-configuration.json";

}  // namespace ostravel::linuxplatform
