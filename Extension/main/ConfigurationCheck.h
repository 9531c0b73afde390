#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/Interface/ProviderConfiguration.h"

namespace ostravel::linuxplatform {

// One sentence for each unknown key of a configuration, and for each value that is unlikely to be
// intended, with the file, the line and the column. Such a configuration is used nevertheless.
// text: the content of the file at path, from which the configuration was read.
std::vector<std::string> configurationWarnings(const platform::ProviderConfiguration& configuration,
                                               const std::string& path, std::string_view text);

// The same, with the text read from the file; empty if it can no longer be read.
std::vector<std::string> configurationWarnings(const platform::ProviderConfiguration& configuration,
                                               const std::string& path);

}  // namespace ostravel::linuxplatform
