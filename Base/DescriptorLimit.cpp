#include "Base/DescriptorLimit.h"

#include <sys/resource.h>

namespace ostravel {

std::size_t raiseDescriptorLimit() {
  // The fallback if the kernel reports no limit; every system permits as many.
  constexpr std::size_t kUsualLimit = 1024;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return kUsualLimit;
  }
  const rlim_t soft = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  // If this is refused, the program keeps its limit.
  const bool isRaised = ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
  return static_cast<std::size_t>(isRaised ? limit.rlim_max : soft);
}

}  // namespace ostravel
