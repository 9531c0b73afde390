#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <variant>

namespace ostravel::platform {

// A configuration value of a type that the system does not use: null, a list, a nested object.
struct OtherConfigurationValue {
  friend bool operator==(const OtherConfigurationValue&, const OtherConfigurationValue&) = default;
};

using ConfigurationValue =
    std::variant<OtherConfigurationValue, bool, std::int64_t, double, std::string>;

using ProviderConfiguration = std::map<std::string, ConfigurationValue, std::less<>>;

// The protocol configuration of a provider that the system has set up as a tunnel provider.
struct TunnelProviderProtocol {
  // Absent when the installed configuration carries no dictionary.
  std::optional<ProviderConfiguration> providerConfiguration;
};

}  // namespace ostravel::platform
