#pragma once

#include <cstdio>
#include <cstdlib>

namespace ostravel::linuxplatform {

// Ends the process with a message: a caller broke a rule whose breach would lose or mix up bytes.
[[noreturn]] inline void programmingError(const char* message) {
  std::fprintf(stderr, "ostravel: programming error: %s\n", message);
  std::abort();
}

}  // namespace ostravel::linuxplatform
