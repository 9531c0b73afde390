#pragma once

#include <cstddef>
#include <variant>
#include <vector>

#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringEvent.h"
#include "Platform/Interface/Error.h"

namespace ostravel {

// Builds the frame in which one event travels:
//
//   | offset 0: body length, 4 bytes, unsigned, big-endian | offset 4: body, one JSON object |
//
// The body is compact UTF-8 JSON with "/" written as "\/"; absent fields have no key. Stateless.
class ProxyTunnelMonitoringFrameEncoder {
 public:
  using Frame = std::vector<std::byte>;

  // Fails, with the domain "JSONEncoding", when a number is not finite or a text is not UTF-8.
  std::variant<Frame, platform::Error> encode(const ProxyTunnelMonitoringEvent& event) const;
};

}  // namespace ostravel
