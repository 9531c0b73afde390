#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Extension/main/ProxyingState.h"

namespace ostravel {

// Explains what would happen to a hypothetical flow, and by which rule, in the terms of
// Documentation/control.md.
struct FlowExplanation {
  struct Question {
    // Absent: a host on no list.
    std::optional<std::string> host;
    std::uint16_t port = 443;
    bool isUDP = false;
    // The identifier. Absent: an application on no list.
    std::optional<std::string> application;
    std::string applicationFrom;
  };

  struct Rule {
    std::string_view name;
    bool decides = false;
    std::string message;
  };

  std::string_view action;
  std::string_view reason;
  std::string message;
  // In the order of evaluation, up to the one that decides.
  std::vector<Rule> rules;

  static FlowExplanation of(const Question& question, const PacketTunnelProvider& provider,
                            const linuxplatform::ProxyingState::State& state);
};

}  // namespace ostravel
