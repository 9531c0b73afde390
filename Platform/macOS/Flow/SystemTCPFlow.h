#pragma once

#include <memory>

#include "Platform/Interface/AppProxyTCPFlow.h"
#import "Platform/macOS/Dispatch/CompletionQueue.h"
#include "Platform/macOS/Flow/OutstandingOperation.h"
#import "Platform/macOS/Flow/SystemFlow.h"

namespace ostravel::macos {

// A TCP flow of the system. Held by std::shared_ptr: completions keep it while they run.
class SystemTCPFlow final : public SystemFlow<platform::AppProxyTCPFlow, NEAppProxyTCPFlow>,
                            public std::enable_shared_from_this<SystemTCPFlow> {
 public:
  using SystemFlow::SystemFlow;

  std::optional<platform::HostEndpoint> remoteEndpoint() const override;
  void open(std::optional<platform::HostEndpoint> localEndpoint,
            platform::ErrorCompletion completion) override;
  void read(platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;

 private:
  const std::shared_ptr<CompletionQueue> queue_ = std::make_shared<CompletionQueue>();
  OutstandingOperation reading_;
  OutstandingOperation writing_;
};

}  // namespace ostravel::macos
