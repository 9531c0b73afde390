#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <optional>

#include "Platform/Interface/HostEndpoint.h"

namespace ostravel::macos {

// Absent for nil and for an endpoint that is not a host and a port.
std::optional<platform::HostEndpoint> hostEndpointFrom(NWEndpoint* endpoint);

// Autoreleased.
NWHostEndpoint* makeNWHostEndpoint(const platform::HostEndpoint& endpoint);

}  // namespace ostravel::macos
