#include "Extension/ProxyTunnelCore/ExtensionLog.h"

namespace ostravel {

std::shared_ptr<platform::Log> makeExtensionLog(platform::Platform& platform) {
  return platform.makeLog(platform.mainBundleIdentifier().value_or("OstravelNetworkExtension"),
                          "OstravelProxy");
}

}  // namespace ostravel
