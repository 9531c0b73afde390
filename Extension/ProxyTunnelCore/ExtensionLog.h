#pragma once

#include <memory>

#include "Platform/Interface/Platform.h"

namespace ostravel {

// The log handle of one object of the extension: the process's bundle identifier as subsystem, or
// "OstravelNetworkExtension" without one, and the category "OstravelProxy".
std::shared_ptr<platform::Log> makeExtensionLog(platform::Platform& platform);

}  // namespace ostravel
