#include "Platform/Linux/Tracing/ConnectRecord.h"

#include <sys/sysmacros.h>
#include <unistd.h>

namespace ostravel::linuxplatform {

namespace {

// The kernel uses 12 bits for the major and 20 bits for the minor number; user space differs.
dev_t userDevice(std::uint32_t kernelDevice) {
  constexpr unsigned kMinorBits = 20;
  return ::makedev(kernelDevice >> kMinorBits, kernelDevice & ((1U << kMinorBits) - 1));
}

std::uint64_t clockTicks(std::uint64_t nanoseconds) {
  constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;
  return nanoseconds / (kNanosecondsPerSecond / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK)));
}

}  // namespace

ConnectRecord KernelConnectRecord::inUserUnits() const {
  return {.process = static_cast<pid_t>(process),
          .realUser = user,
          .user = effectiveUser,
          .startTime = clockTicks(startTimeNanoseconds),
          .stackStart = stackStart,
          .executable = {userDevice(executableDevice), executableInode}};
}

}  // namespace ostravel::linuxplatform
