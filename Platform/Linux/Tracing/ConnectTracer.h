#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Tracing/ConnectRecord.h"
#include "Platform/Linux/Tracing/KernelProgram.h"

struct bpf_map;

namespace ostravel::linuxplatform {

// Knows which process connected a socket, as recorded by a small program in the kernel, and which
// executable it was running at that moment; by the time of a look-up it may be running another one.
//
// The program is attached to the root control group, next to any others there. The kernel detaches
// it with the last descriptor of the link: when the object is destroyed or the process ends for any
// reason. Usable by one thread at a time.
class ConnectTracer {
 public:
  enum class Detail {
    // Requires Linux 5.14 with type information (/sys/kernel/btf/vmlinux).
    programs,
    // Records contain only the process.
    processes,
  };

  // Starts with as much of the wanted detail as possible. If tracing is impossible, the error's
  // description is a clause with the reason: no permission, no control groups of version 2, a
  // kernel before 5.7, a separate process namespace.
  static platform::Result<std::unique_ptr<ConnectTracer>> start(Detail wanted = Detail::programs);

  ConnectTracer(const ConnectTracer&) = delete;
  ConnectTracer& operator=(const ConnectTracer&) = delete;
  ~ConnectTracer();

  Detail detail() const { return detail_; }

  // The process that last connected the socket, or sent on it unconnected; empty if that was before
  // the tracer started or many thousand sockets ago. The process may have ended since. From any
  // thread.
  std::optional<ConnectRecord> recordOf(std::uint64_t cookie) const;

  // The map of records, for further programs in the kernel. Valid as long as this object.
  int recordsDescriptor() const;

 private:
  ConnectTracer(KernelProgram object, Detail detail);

  static platform::Result<std::unique_ptr<ConnectTracer>> startWith(Detail detail);
  // Compares this process's record with /proc.
  platform::OptionalError examineOwnRecord() const;

  const KernelProgram object_;
  const Detail detail_;
  std::vector<KernelProgramLink> links_;
  const bpf_map* processes_ = nullptr;
};

}  // namespace ostravel::linuxplatform
