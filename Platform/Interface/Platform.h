#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Interface/Clock.h"
#include "Platform/Interface/DispatchQueue.h"
#include "Platform/Interface/DispatchTimer.h"
#include "Platform/Interface/Log.h"
#include "Platform/Interface/SocketCalls.h"
#include "Platform/Interface/TextServices.h"
#include "Platform/Interface/UUIDSource.h"

namespace ostravel::platform {

// The core's environment, apart from flows and connections. One object per process (or per
// simulated run); it outlives everything that was made with it. Usable from any thread.
class Platform {
 public:
  Platform() = default;
  Platform(const Platform&) = delete;
  Platform& operator=(const Platform&) = delete;
  virtual ~Platform() = default;

  virtual std::shared_ptr<DispatchQueue> makeQueue(std::string label, DispatchQueueKind kind) = 0;
  virtual std::shared_ptr<DispatchTimer> makeTimer(std::shared_ptr<DispatchQueue> queue) = 0;

  virtual std::shared_ptr<Log> makeLog(std::string subsystem, std::string category) = 0;
  // The process's default log, for lines whose object no longer exists.
  virtual Log& defaultLog() = 0;
  // One line to the plain system log.
  virtual void systemLog(std::string_view line) = 0;

  // Absent when the process has no bundle, or the bundle no identifier.
  virtual std::optional<std::string> mainBundleIdentifier() const = 0;

  virtual const Clock& clock() const = 0;
  virtual UUIDSource& uuidSource() = 0;
  virtual const TextServices& text() const = 0;
  virtual SocketCalls& sockets() = 0;
};

}  // namespace ostravel::platform
