#import "Platform/macOS/Flow/ConnectionStateObservation.h"

#include <mutex>
#include <unordered_map>
#include <utility>

#import "Platform/macOS/Flow/SystemTCPConnection.h"

namespace ostravel::macos {

namespace {

// The adapters by the numbers of their observations.
class ObservationTable {
 public:
  std::uintptr_t add(std::weak_ptr<SystemTCPConnection> adapter) {
    const std::lock_guard guard(lock_);
    adapters_.emplace(++lastNumber_, std::move(adapter));
    return lastNumber_;
  }
  void remove(std::uintptr_t number) {
    const std::lock_guard guard(lock_);
    adapters_.erase(number);
  }
  std::shared_ptr<SystemTCPConnection> find(std::uintptr_t number) {
    const std::lock_guard guard(lock_);
    const auto found = adapters_.find(number);
    return found != adapters_.end() ? found->second.lock() : nullptr;
  }

 private:
  std::mutex lock_;
  std::uintptr_t lastNumber_ = 0;
  std::unordered_map<std::uintptr_t, std::weak_ptr<SystemTCPConnection>> adapters_;
};

// Never destroyed: notifications may arrive until the process ends.
ObservationTable& observationTable() {
  static ObservationTable& table = *new ObservationTable();
  return table;
}

}  // namespace

}  // namespace ostravel::macos

@interface OVConnectionStateObserver : NSObject
@end

@implementation OVConnectionStateObserver

- (void)observeValueForKeyPath:(NSString*)keyPath
                      ofObject:(id)object
                        change:(NSDictionary*)change
                       context:(void*)context {
  (void)keyPath;
  (void)change;
  // The adapter may be destroyed below, and with it the last known reference to the connection,
  // which is in the middle of its notification.
  [[object retain] autorelease];
  const auto number = reinterpret_cast<std::uintptr_t>(context);
  if (const auto adapter = ostravel::macos::observationTable().find(number)) {
    @autoreleasepool {
      adapter->stateDidChange();
    }
  }
}

@end

namespace ostravel::macos {

namespace {

OVConnectionStateObserver* stateObserver() {
  static OVConnectionStateObserver* const observer = [[OVConnectionStateObserver alloc] init];
  return observer;
}

}  // namespace

std::uintptr_t startObservingState(NWTCPConnection* connection,
                                   std::weak_ptr<SystemTCPConnection> adapter) {
  const std::uintptr_t number = observationTable().add(std::move(adapter));
  @autoreleasepool {
    [connection addObserver:stateObserver()
                 forKeyPath:@"state"
                    options:NSKeyValueObservingOptionNew
                    context:reinterpret_cast<void*>(number)];
  }
  return number;
}

void stopObservingState(NWTCPConnection* connection, std::uintptr_t observation) {
  @autoreleasepool {
    [connection removeObserver:stateObserver() forKeyPath:@"state"];
  }
  observationTable().remove(observation);
}

}  // namespace ostravel::macos
