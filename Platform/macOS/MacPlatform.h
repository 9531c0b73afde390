#pragma once

#include "Platform/Interface/Platform.h"
#include "Platform/Shared/POSIXSocketCalls.h"
#include "Platform/macOS/Foundation/CoreFoundationTextServices.h"
#include "Platform/macOS/Foundation/FoundationClock.h"
#include "Platform/macOS/Foundation/FoundationUUIDSource.h"
#import "Platform/macOS/Foundation/UnifiedLog.h"

namespace ostravel::macos {

// The core's environment on macOS. One per process, created by the process entry and never
// destroyed there.
class MacPlatform final : public platform::Platform {
 public:
  MacPlatform();

  std::shared_ptr<platform::DispatchQueue> makeQueue(std::string label,
                                                     platform::DispatchQueueKind kind) override;
  // queue is one of makeQueue.
  std::shared_ptr<platform::DispatchTimer> makeTimer(
      std::shared_ptr<platform::DispatchQueue> queue) override;

  std::shared_ptr<platform::Log> makeLog(std::string subsystem, std::string category) override;
  platform::Log& defaultLog() override { return defaultLog_; }
  void systemLog(std::string_view line) override;

  std::optional<std::string> mainBundleIdentifier() const override;

  const platform::Clock& clock() const override { return clock_; }
  platform::UUIDSource& uuidSource() override { return uuidSource_; }
  const platform::TextServices& text() const override { return text_; }
  platform::SocketCalls& sockets() override { return sockets_; }

 private:
  UnifiedLog defaultLog_;
  FoundationClock clock_;
  FoundationUUIDSource uuidSource_;
  CoreFoundationTextServices text_;
  platform::POSIXSocketCalls sockets_;
};

}  // namespace ostravel::macos
