#include "Base/DescriptorLimit.h"

#include <sys/resource.h>

namespace ostravel {

std::size_t raiseDescriptorLimit() {
  // What every system grants; returned when the kernel does not say.
  constexpr std::size_t kUsualLimit = 1024;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return kUsualLimit;
  }
  const rlim_t soft = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  // Refused at worst: the program then works with the limit it was given.
  const bool isRaised = ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
  return static_cast<std::size_t>(isRaised ? limit.rlim_max : soft);
}

}  // namespace ostravel
