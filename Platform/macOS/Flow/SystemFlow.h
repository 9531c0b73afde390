#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <string>
#include <utility>

#include "Platform/Interface/AppProxyFlow.h"
#import "Platform/macOS/Flow/FlowError.h"
#import "Platform/macOS/Foundation/FoundationText.h"
#import "Platform/macOS/Foundation/Reference.h"

namespace ostravel::macos {

// Shared by all kinds of flow. Interface is the seam's class for the kind, Flow the system's.
// Releasing the last reference to a flow leaves it to the system.
template <typename Interface, typename Flow>
class SystemFlow : public Interface {
 public:
  explicit SystemFlow(Flow* flow) : flow_(Reference<Flow*>::retaining(flow)) {}

  std::string sourceAppSigningIdentifier() const override {
    @autoreleasepool {
      return textOf([[flow() metaData] sourceAppSigningIdentifier]);
    }
  }
  void closeRead(platform::OptionalError error) override {
    @autoreleasepool {
      [flow() closeReadWithError:makeFlowError(error)];
    }
  }
  void closeWrite(platform::OptionalError error) override {
    @autoreleasepool {
      [flow() closeWriteWithError:makeFlowError(error)];
    }
  }

 protected:
  Flow* flow() const { return flow_.get(); }

 private:
  const Reference<Flow*> flow_;
};

// A flow of a kind for which the seam has no class.
using SystemOtherFlow = SystemFlow<platform::AppProxyFlow, NEAppProxyFlow>;

}  // namespace ostravel::macos
