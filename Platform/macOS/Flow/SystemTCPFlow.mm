#import "Platform/macOS/Flow/SystemTCPFlow.h"

#include <utility>

#import "Platform/macOS/Dispatch/CompletionBlocks.h"
#import "Platform/macOS/Flow/NetworkEndpoints.h"
#import "Platform/macOS/Foundation/FoundationData.h"

namespace ostravel::macos {

std::optional<platform::HostEndpoint> SystemTCPFlow::remoteEndpoint() const {
  @autoreleasepool {
    return hostEndpointFrom([flow() remoteEndpoint]);
  }
}

void SystemTCPFlow::open(std::optional<platform::HostEndpoint> localEndpoint,
                         platform::ErrorCompletion completion) {
  @autoreleasepool {
    [flow()
        openWithLocalEndpoint:localEndpoint ? makeNWHostEndpoint(*localEndpoint) : nil
            completionHandler:errorBlock(queue_, weak_from_this(), std::move(completion)).get()];
  }
}

void SystemTCPFlow::read(platform::ReadCompletion completion) {
  reading_.begin("a read of a stream that is being read");
  @autoreleasepool {
    [flow() readDataWithCompletionHandler:readBlock(queue_, weak_from_this(),
                                                    endingOperation(weak_from_this(),
                                                                    &SystemTCPFlow::reading_,
                                                                    std::move(completion)))
                                              .get()];
  }
}

void SystemTCPFlow::write(platform::Data data, platform::ErrorCompletion completion) {
  writing_.begin("a write to a stream that is being written to");
  @autoreleasepool {
    [flow() writeData:makeNSData(data)
        withCompletionHandler:errorBlock(queue_, weak_from_this(),
                                         endingOperation(weak_from_this(), &SystemTCPFlow::writing_,
                                                         std::move(completion)))
                                  .get()];
  }
}

}  // namespace ostravel::macos
