#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#import "Platform/macOS/Foundation/Reference.h"
#import "Tests/StandInMac/StandInNetworkExtension.h"

namespace ostravel::macos::test {

// How often a completion handler of the system was called, and its last argument.
struct Answer {
  std::atomic<int> count = 0;
  // Retained; the error of the last answer.
  Reference<NSError*> error() const {
    const std::lock_guard guard(lock);
    return lastError;
  }

  mutable std::mutex lock;
  Reference<NSError*> lastError;
};

// The principal object as the system makes and holds it, by the name of its class, with the core
// behind it.
class PrincipalObject {
 public:
  PrincipalObject();

  // The object's installed configuration: the dictionary of a tunnel provider; nil for one without.
  void configure(NSDictionary* providerConfiguration);
  // A configuration of another kind.
  void configureOtherwise(NEVPNProtocol* protocol);

  std::shared_ptr<Answer> start(NSDictionary* options = nil);
  // Starts, waits for the answer, and expects it to be a success.
  void startUp();
  std::shared_ptr<Answer> stop(NEProviderStopReason reason = NEProviderStopReasonUserInitiated);
  // As the system offers a flow of any kind; true when it was taken.
  bool offer(NEAppProxyFlow* flow);
  // The system releases the object.
  void release() { object_ = {}; }

  NETransparentProxyProvider* get() const { return object_.get(); }

 private:
  Reference<NETransparentProxyProvider*> object_;
};

}  // namespace ostravel::macos::test
