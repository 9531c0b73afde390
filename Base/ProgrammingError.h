#pragma once

#include <cstdio>
#include <cstdlib>

namespace ostravel {

// Ends the process with one line on standard error: a caller has broken a rule of the seam.
[[noreturn]] inline void programmingError(const char* message) {
  std::fprintf(stderr, "ostravel: programming error: %s\n", message);
  std::abort();
}

}  // namespace ostravel
