#include "Platform/Linux/Services/DescriptorBudget.h"

#include <sys/resource.h>

namespace ostravel::linuxplatform {

namespace {

// What every system grants; used when the kernel does not say.
constexpr std::size_t kUsualLimit = 1024;

std::size_t raiseLimit() {
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0) {
    return kUsualLimit;
  }
  const rlim_t soft = files.rlim_cur;
  files.rlim_cur = files.rlim_max;
  const bool isRaised = ::setrlimit(RLIMIT_NOFILE, &files) == 0;
  return static_cast<std::size_t>(isRaised ? files.rlim_max : soft);
}

}  // namespace

DescriptorBudget::DescriptorBudget() : DescriptorBudget(raiseLimit()) {}

}  // namespace ostravel::linuxplatform
