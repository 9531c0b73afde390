#pragma once

#include <memory>
#include <string_view>

#include "Platform/Interface/Platform.h"
#include "Platform/Interface/ProviderError.h"

namespace ostravel {

// Domain of the errors that this system itself defines.
inline constexpr std::string_view kErrorDomain = platform::kProviderErrorDomain;

// The log handle of one object of the extension: the process's bundle identifier as subsystem,
// "OstravelNetworkExtension" when there is none, and the category "OstravelProxy".
std::shared_ptr<platform::Log> makeExtensionLog(platform::Platform& platform);

}  // namespace ostravel
