#pragma once

#include <memory>

#include "Base/BackgroundWriter.h"
#include "Platform/Interface/Log.h"

namespace ostravel::linuxplatform {

// Writes the lines pending in the log's writer when the process crashes: by a signal of the
// processor or of abort(3), or by an uncaught exception, which is logged first. The process then
// ends by the same signal as without the handler. A stalled reader delays the end by a few tenths
// of a second at most.
class CrashHandler {
 public:
  // Called once per process; the writer and the log are never destroyed afterwards.
  static void install(std::shared_ptr<BackgroundWriter> writer, std::shared_ptr<platform::Log> log);
};

}  // namespace ostravel::linuxplatform
