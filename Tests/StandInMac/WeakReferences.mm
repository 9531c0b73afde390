// The runtime's weak references, which the one on this machine does not have. Only providers can be
// referred to weakly here.

#import <NetworkExtension/NetworkExtension.h>

#include <memory>
#include <mutex>
#include <unordered_map>

#import "Tests/StandInMac/ProviderState.h"

using ostravel::standin::ProviderState;
using ostravel::standin::stateOf;

namespace {

struct Target {
  id object;
  std::shared_ptr<ProviderState> state;
};

std::mutex lock;
std::unordered_map<id*, Target>& targets() {
  static auto& targets = *new std::unordered_map<id*, Target>();
  return targets;
}

}  // namespace

extern "C" {

id objc_storeWeak(id* location, id object) {
  // Released without the lock.
  Target previous{};
  const std::lock_guard guard(lock);
  if (const auto found = targets().find(location); found != targets().end()) {
    previous = found->second;
    targets().erase(found);
  }
  if (object != nil) {
    targets().emplace(location,
                      Target{object, stateOf<ProviderState>(static_cast<NEProvider*>(object))});
  }
  return object;
}

id objc_loadWeak(id* location) {
  const std::lock_guard guard(lock);
  const auto found = targets().find(location);
  if (found == targets().end() || !found->second.state->life().tryRetain()) {
    return nil;
  }
  return [found->second.object autorelease];
}

}  // extern "C"
