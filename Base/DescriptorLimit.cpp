#include "Base/DescriptorLimit.h"

#include <sys/resource.h>

namespace ostravel::companion {

void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return;
  }
  limit.rlim_cur = limit.rlim_max;
  // Refused at worst: the program then works with the limit it was given.
  static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit));
}

}  // namespace ostravel::companion
