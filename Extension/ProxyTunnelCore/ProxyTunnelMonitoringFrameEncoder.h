#pragma once

#include <cstddef>
#include <vector>

#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringEvent.h"
#include "Platform/Interface/Result.h"

namespace ostravel {

// Builds the frame that carries one event:
//
//   | offset 0: body length, 4 bytes, unsigned, big-endian | offset 4: body, one JSON object |
//
// The body is compact UTF-8 JSON with "/" written as "\/"; absent fields have no key. Stateless.
class ProxyTunnelMonitoringFrameEncoder {
 public:
  using Frame = std::vector<std::byte>;

  // Fails if a number is not finite or a text is not UTF-8. The error's domain is then
  // "JSONEncoding", because the JSON encoder refuses the value.
  platform::Result<Frame> encode(const ProxyTunnelMonitoringEvent& event) const;
};

}  // namespace ostravel
