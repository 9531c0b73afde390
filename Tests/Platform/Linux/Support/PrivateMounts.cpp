#include "Tests/Platform/Linux/Support/PrivateMounts.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include "Tests/Support/InChildProcess.h"

namespace ostravel::testing {

bool enterPrivateMounts() {
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

void inPrivateMounts(const std::function<void()>& body) {
  inChildProcess([&body] {
    ASSERT_TRUE(enterPrivateMounts()) << "run as root";
    body();
  });
}

}  // namespace ostravel::testing
