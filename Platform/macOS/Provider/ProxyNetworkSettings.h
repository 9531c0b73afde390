#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include "Platform/Interface/NetworkSettings.h"

namespace ostravel::macos {

// Autoreleased; the rules keep their order.
NETransparentProxyNetworkSettings* makeProxyNetworkSettings(
    const platform::TransparentProxyNetworkSettings& settings);

}  // namespace ostravel::macos
