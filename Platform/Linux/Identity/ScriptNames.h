#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/Processes/ProcessTable.h"
#include "Platform/Linux/Tracing/ScriptTracer.h"

namespace ostravel::linuxplatform {

// Names programs that are scripts by the path of the script, where the kernel has recorded it. The
// path must mean the same to every process: without "." and "..", as seen in the mount namespace
// and the root folder of the first process (of this one if that is hidden), and not in a folder in
// which all users may create files. A relative path is completed while the process is in the folder
// in which it was started. If env(1) has chosen the interpreter, it must be a standard one of the
// system, since a user controls where env looks for it. Usable from any thread.
class ScriptNames {
 public:
  // tracer: null if scripts are not traced; then there are no names.
  explicit ScriptNames(std::unique_ptr<ScriptTracer> tracer);

  // Empty if the process does not run a script, or its path is not known for certain.
  // processes: of the calling thread.
  std::optional<std::string> nameOf(const Process& process, const ProcessTable& processes) const;

 private:
  static bool isSeenByEverybody(const ScriptRecord& record, const ProcessTable& processes);
  // The script's absolute path; empty if it is not known for certain.
  static std::string pathOf(const ScriptRecord& record, const Process& process,
                            const ProcessTable& processes);

  const std::unique_ptr<ScriptTracer> tracer_;
};

}  // namespace ostravel::linuxplatform
