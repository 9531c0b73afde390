#include "Tests/Linux/Relay/Support/PrivateNetwork.h"

#include <sched.h>

#include <cstdio>
#include <cstdlib>

namespace ostravel::linuxplatform::test {

void enterPrivateNetwork() {
  if (::unshare(CLONE_NEWNET) != 0) {
    std::perror("a private network namespace is needed: unshare");
    std::exit(EXIT_FAILURE);
  }
  runCommand("ip link set lo up");
  runCommand("ip address add 10.0.0.2/32 dev lo");
  runCommand("ip address add 2001:db8::2/128 dev lo nodad");
}

void runCommand(const char* command) {
  if (std::system(command) != 0) {
    std::fprintf(stderr, "this command is needed and failed: %s\n", command);
    std::exit(EXIT_FAILURE);
  }
}

}  // namespace ostravel::linuxplatform::test
