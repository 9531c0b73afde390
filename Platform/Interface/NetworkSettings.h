#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Platform/Interface/HostEndpoint.h"

namespace ostravel::platform {

enum class NetworkRuleProtocol { tcp, udp };

// Selects outbound flows by destination. A prefix of 0 matches every destination of the address's
// family except loopback, which needs a rule that names it.
struct NetworkRule {
  // An address literal, and a port in decimal.
  HostEndpoint destinationNetwork;
  std::uint8_t destinationPrefix = 0;
  NetworkRuleProtocol protocol = NetworkRuleProtocol::tcp;

  friend bool operator==(const NetworkRule&, const NetworkRule&) = default;
};

// Selects the flows that the provider is offered: those that match an included rule and no excluded
// one.
struct TransparentProxyNetworkSettings {
  explicit TransparentProxyNetworkSettings(std::string remoteAddress)
      : tunnelRemoteAddress(std::move(remoteAddress)) {}

  std::string tunnelRemoteAddress;
  std::vector<NetworkRule> includedNetworkRules;
  std::vector<NetworkRule> excludedNetworkRules;
};

}  // namespace ostravel::platform
