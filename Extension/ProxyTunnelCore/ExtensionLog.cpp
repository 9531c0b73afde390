#include "Extension/ProxyTunnelCore/ExtensionLog.h"

#include <string>

namespace ostravel {

std::shared_ptr<platform::Log> makeExtensionLog(platform::Platform& platform) {
  return platform.makeLog(
      platform.mainBundleIdentifier().value_or(std::string(platform::kFallbackLogSubsystem)),
      std::string(platform::kLogCategory));
}

}  // namespace ostravel
