#import "Platform/macOS/Provider/ProxyNetworkSettings.h"

#include <vector>

#import "Platform/macOS/Flow/NetworkEndpoints.h"
#import "Platform/macOS/Foundation/FoundationText.h"

namespace ostravel::macos {

namespace {

NENetworkRuleProtocol protocolOf(const platform::NetworkRule& rule) {
  return rule.protocol == platform::NetworkRuleProtocol::udp ? NENetworkRuleProtocolUDP
                                                             : NENetworkRuleProtocolTCP;
}

NSArray<NENetworkRule*>* makeRules(const std::vector<platform::NetworkRule>& rules) {
  NSMutableArray<NENetworkRule*>* const result = [NSMutableArray arrayWithCapacity:rules.size()];
  for (const auto& rule : rules) {
    NENetworkRule* const object = [[NENetworkRule alloc]
        initWithDestinationNetwork:makeNWHostEndpoint(rule.destinationNetwork)
                            prefix:rule.destinationPrefix
                          protocol:protocolOf(rule)];
    [result addObject:object];
    [object release];
  }
  return result;
}

}  // namespace

NETransparentProxyNetworkSettings* makeProxyNetworkSettings(
    const platform::TransparentProxyNetworkSettings& settings) {
  NETransparentProxyNetworkSettings* const result = [[[NETransparentProxyNetworkSettings alloc]
      initWithTunnelRemoteAddress:makeString(settings.tunnelRemoteAddress)] autorelease];
  [result setIncludedNetworkRules:makeRules(settings.includedNetworkRules)];
  [result setExcludedNetworkRules:makeRules(settings.excludedNetworkRules)];
  return result;
}

}  // namespace ostravel::macos
