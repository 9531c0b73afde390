#pragma once

#include <sys/types.h>

#include <cstdint>

#include "Platform/Linux/Processes/FileIdentity.h"

namespace ostravel::linuxplatform {

// The process that connected a socket, at the time of the connect.
struct ConnectRecord {
  pid_t process = 0;
  // The following are 0 unless programs are traced. The real and the effective user.
  uid_t realUser = 0;
  uid_t user = 0;
  // As in ProcessStamp.
  std::uint64_t startTime = 0;
  std::uint64_t stackStart = 0;
  // The executable that the process was running.
  FileIdentity executable;

  friend bool operator==(const ConnectRecord&, const ConnectRecord&) = default;
};

// The same record as written by the programs in the kernel, in the kernel's units. Must match
// ConnectRecord.bpf.h.
struct KernelConnectRecord {
  std::uint32_t process;
  std::uint32_t user;
  std::uint32_t effectiveUser;
  std::uint32_t executableDevice;
  std::uint64_t executableInode;
  std::uint64_t startTimeNanoseconds;
  std::uint64_t stackStart;

  ConnectRecord inUserUnits() const;
};

}  // namespace ostravel::linuxplatform
