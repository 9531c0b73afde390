#include "Tests/Support/PrivateNetwork.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ostravel::testing {

namespace {

[[noreturn]] void giveUp(const char* what) {
  std::fprintf(stderr, "%s: %s: these tests need root and network namespaces\n", what,
               std::strerror(errno));
  std::exit(EXIT_FAILURE);
}

}  // namespace

void enterPrivateNetwork() {
  if (::unshare(CLONE_NEWNET) != 0) {
    giveUp("unshare");
  }
  const int descriptor = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", sizeof request.ifr_name - 1);
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  if (descriptor < 0 || ::ioctl(descriptor, SIOCSIFFLAGS, &request) != 0) {
    giveUp("bringing up lo");
  }
  ::close(descriptor);
}

}  // namespace ostravel::testing
