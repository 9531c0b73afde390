#pragma once

#include <sys/types.h>

#include <cstdint>

namespace ostravel::linuxplatform {

// The kernel uses 12 bits for the major and 20 bits for the minor number of a device.
dev_t userDevice(std::uint32_t kernelDevice);

// As in /proc (proc_pid_stat(5)).
std::uint64_t clockTicks(std::uint64_t nanoseconds);

}  // namespace ostravel::linuxplatform
