#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Interface/Result.h"
#include "Platform/Linux/Processes/FileIdentity.h"
#include "Platform/Linux/Tracing/KernelProgram.h"

struct bpf_map;

namespace ostravel::linuxplatform {

// The script that a process was started with, as the kernel recorded it. A process runs its
// interpreter's file, which says little about the application.
struct ScriptRecord {
  // As in ProcessStamp.
  std::uint64_t startTime = 0;
  std::uint64_t stackStart = 0;
  // The root folder to which the path refers.
  FileIdentity root;
  // The working folder at that time.
  FileIdentity folder;
  ino_t mountNamespace = 0;
  // As passed to execve(2); may be relative. Empty if it is too long.
  std::string path;
  // True if env(1) chose its interpreter.
  bool isByEnv = false;
};

// Knows which processes run a script: those that have executed one since this object was created,
// directly or through env(1), and their children. Like those of ConnectTracer, its programs are
// detached with this object or this process. Usable from any thread.
class ScriptTracer {
 public:
  // Requires Linux 5.14 with type information, and the initial process namespace. On failure the
  // error's description is a clause with the reason.
  static platform::Result<std::unique_ptr<ScriptTracer>> start();

  ScriptTracer(const ScriptTracer&) = delete;
  ScriptTracer& operator=(const ScriptTracer&) = delete;
  ~ScriptTracer();

  std::optional<ScriptRecord> recordOf(pid_t process) const;

 private:
  explicit ScriptTracer(KernelProgram object);

  const KernelProgram object_;
  std::vector<KernelProgramLink> links_;
  const bpf_map* scripts_ = nullptr;
};

}  // namespace ostravel::linuxplatform
