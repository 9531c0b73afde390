#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Processes/FileIdentity.h"

struct bpf_link;
struct bpf_map;
struct bpf_object;

namespace ostravel::linuxplatform {

// Who has connected a socket, at that moment.
struct ConnectRecord {
  pid_t process = 0;
  // The following are 0 unless programs are traced. The real and the effective user.
  uid_t realUser = 0;
  uid_t user = 0;
  // As ProcessStamp has them.
  std::uint64_t startTime = 0;
  std::uint64_t stackStart = 0;
  // What the process was running.
  FileIdentity executable;

  friend bool operator==(const ConnectRecord&, const ConnectRecord&) = default;
};

// Knows which process has connected a socket, as a small program in the kernel saw it happen, and
// which program that process was running, which may be another one by the time somebody looks.
//
// The program is attached to the root of the control groups, beside whatever else is attached
// there, for as long as the object or the process exists, however that ends: the kernel detaches it
// with the last descriptor of the link. Usable by one thread at a time.
class ConnectTracer {
 public:
  enum class Detail {
    // Takes Linux 5.14 with a description of its own structures (/sys/kernel/btf/vmlinux).
    programs,
    // Records only tell the process.
    processes,
  };

  // With the most detail that is possible and wanted. When nothing is possible, the error's
  // description is a clause that says why: no permission, no control groups of version 2, a kernel
  // before 5.7, a process namespace of our own.
  static platform::Result<std::unique_ptr<ConnectTracer>> start(Detail wanted = Detail::programs);

  ConnectTracer(const ConnectTracer&) = delete;
  ConnectTracer& operator=(const ConnectTracer&) = delete;
  ~ConnectTracer();

  Detail detail() const { return detail_; }

  // Who connected the socket last, or sent on it unconnected; absent when that was before the
  // tracer started, or many thousand sockets ago. The process may have ended since.
  std::optional<ConnectRecord> recordOf(std::uint64_t cookie) const;

 private:
  struct ObjectRelease {
    void operator()(bpf_object* object) const;
  };
  struct LinkRelease {
    void operator()(bpf_link* link) const;
  };

  ConnectTracer(std::unique_ptr<bpf_object, ObjectRelease> object, Detail detail);

  static platform::Result<std::unique_ptr<ConnectTracer>> startWith(Detail detail);
  platform::OptionalError attach(int cgroupRoot);
  // Compares what is recorded about this process with what /proc shows.
  platform::OptionalError examineOwnRecord() const;

  const std::unique_ptr<bpf_object, ObjectRelease> object_;
  const Detail detail_;
  std::vector<std::unique_ptr<bpf_link, LinkRelease>> links_;
  const bpf_map* processes_ = nullptr;
};

}  // namespace ostravel::linuxplatform
