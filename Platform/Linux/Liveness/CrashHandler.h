#pragma once

#include <memory>

#include "Base/BackgroundWriter.h"
#include "Platform/Interface/Log.h"

namespace ostravel::linuxplatform {

// Has the lines that still wait in the log's writer written when the process crashes: by a signal
// of the processor or of abort(3), or by an exception that nobody catches, which is logged first.
// The process then ends by the same signal as without the handler. A reader that has stalled delays
// the end by some tenths of a second at most.
class CrashHandler {
 public:
  // Once per process, whose whole remaining life the writer and the log then have.
  static void install(std::shared_ptr<BackgroundWriter> writer, std::shared_ptr<platform::Log> log);
};

}  // namespace ostravel::linuxplatform
