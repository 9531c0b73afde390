#include "Companion/Monitor/EventFilter.h"

#include <algorithm>
#include <string_view>

#include "Base/UTF8.h"

namespace ostravel::companion {
namespace {

bool containsAny(std::string_view text, const std::vector<std::string>& parts) {
  const std::string lowercased = lowercasedASCII(text);
  return parts.empty() || std::any_of(parts.begin(), parts.end(), [&](const std::string& part) {
           return lowercased.find(lowercasedASCII(part)) != std::string::npos;
         });
}

}  // namespace

bool EventFilter::passes(const ReceivedEvent& event, const FlowRecord* flow) const {
  if (onlyFailures && !(flow == nullptr ? event.level == "error" : flow->hasJustFailed)) {
    return false;
  }
  return flow == nullptr ||
         (containsAny(flow->application, applications) && containsAny(flow->destination, hosts));
}

}  // namespace ostravel::companion
