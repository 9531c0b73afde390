#include "Tests/Platform/Linux/Support/PrivateProcesses.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace ostravel::testing {

namespace {

bool mountOwnProc() {
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("proc", "/proc", "proc", 0, nullptr) == 0;
}

}  // namespace

void inPrivateProcesses(const std::function<void()>& body) {
  // The namespace applies to all later children of the caller, so the caller is a child, too.
  const pid_t outer = ::fork();
  ASSERT_GE(outer, 0);
  if (outer == 0) {
    const pid_t inner = ::unshare(CLONE_NEWPID) == 0 ? ::fork() : -1;
    if (inner == 0) {
      EXPECT_TRUE(mountOwnProc()) << "run as root";
      body();
      std::fflush(nullptr);
      ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ::waitpid(inner, &status, 0);
    ::_exit(status == 0 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(outer, &status, 0), outer);
  EXPECT_EQ(status, 0);
}

}  // namespace ostravel::testing
