#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/Interface/ProviderConfiguration.h"

namespace ostravel::linuxplatform {

// One sentence for each key of a configuration that is unknown, or whose value cannot mean what its
// author wanted, with the file, the line and the column. Such a configuration is used nevertheless.
// text is that of the file at path, from which the configuration was read.
std::vector<std::string> configurationWarnings(const platform::ProviderConfiguration& configuration,
                                               const std::string& path, std::string_view text);

// The same, with the text read from the file; empty if it can no longer be read.
std::vector<std::string> configurationWarnings(const platform::ProviderConfiguration& configuration,
                                               const std::string& path);

}  // namespace ostravel::linuxplatform
