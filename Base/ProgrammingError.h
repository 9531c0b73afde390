#pragma once

#include <cstdio>
#include <cstdlib>

namespace ostravel::linuxplatform {

// Ends the process with a message: a caller has broken a rule of the seam.
[[noreturn]] inline void programmingError(const char* message) {
  std::fprintf(stderr, "ostravel: programming error: %s\n", message);
  std::abort();
}

}  // namespace ostravel::linuxplatform
