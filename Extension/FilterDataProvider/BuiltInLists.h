#pragma once

#include <string>
#include <unordered_set>
#include <vector>

namespace ostravel::built_in {

// Applications whose flows are never proxied, by identifier. Flows are looked up by their
// lower-cased identifier while these stand as written, so an entry with capitals matches nothing;
// it documents the vendor's own spelling.
std::unordered_set<std::string> bypassAppIds();

// Hosts that are never proxied. An entry with a leading "." stands for the subdomains only, an
// entry without it for exactly that host; a service that needs both has both.
std::vector<std::string> hardBypassDomains();

// Real-time conferencing: exempt for UDP only, so that media is not forced onto TCP.
std::vector<std::string> realtimeMediaDomains();

// The destination ports whose TCP flows are offered to the provider, in decimal.
std::vector<std::string> interceptedPorts();

}  // namespace ostravel::built_in
