#include "Tests/Platform/Linux/Support/PrivateProcesses.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include "Tests/Platform/Linux/Support/PrivateMounts.h"
#include "Tests/Support/InChildProcess.h"

namespace ostravel::testing {

void inPrivateProcesses(const std::function<void()>& body) {
  // The namespace applies to all later children of the caller, so the caller is a child, too.
  inChildProcess([&body] {
    ASSERT_EQ(::unshare(CLONE_NEWPID), 0) << "run as root";
    inChildProcess([&body] {
      ASSERT_TRUE(enterPrivateMounts()) << "run as root";
      ASSERT_EQ(::mount("proc", "/proc", "proc", 0, nullptr), 0);
      body();
    });
  });
}

}  // namespace ostravel::testing
