#pragma once

#include <string>
#include <unordered_set>
#include <vector>

namespace ostravel::built_in {

// The identifiers of applications whose flows are never proxied. Flows are looked up by their
// lower-cased identifier, but the entries are not lower-cased: an entry with capitals matches
// nothing and only documents the vendor's spelling.
std::unordered_set<std::string> bypassAppIds();

// Hosts that are never proxied. An entry with a leading "." matches subdomains only, an entry
// without it exactly that host; a service that needs both has two entries.
std::vector<std::string> hardBypassDomains();

// Real-time conferencing: exempt for UDP only, so that media is not forced onto TCP.
std::vector<std::string> realtimeMediaDomains();

// The destination ports whose TCP flows are offered to the provider, in decimal.
std::vector<std::string> interceptedPorts();

}  // namespace ostravel::built_in
