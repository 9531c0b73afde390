#include "Platform/Linux/Tracing/KernelUnits.h"

#include <sys/sysmacros.h>
#include <unistd.h>

namespace ostravel::linuxplatform {

dev_t userDevice(std::uint32_t kernelDevice) {
  constexpr unsigned kMinorBits = 20;
  return ::makedev(kernelDevice >> kMinorBits, kernelDevice & ((1U << kMinorBits) - 1));
}

std::uint64_t clockTicks(std::uint64_t nanoseconds) {
  constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;
  return nanoseconds / (kNanosecondsPerSecond / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK)));
}

}  // namespace ostravel::linuxplatform
