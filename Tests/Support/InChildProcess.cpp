#include "Tests/Support/InChildProcess.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>

namespace ostravel::testing {

namespace {

// With those of the first 32 capabilities that are in the mask.
void withCapabilities(std::uint32_t mask, const std::function<void()>& body) {
  inChildProcess([mask, &body] {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data{};
    data[0].effective = data[0].permitted = mask;
    ASSERT_EQ(::syscall(SYS_capset, &header, data.data()), 0) << "run as root";
    body();
  });
}

}  // namespace

void inChildProcess(const std::function<void()>& body) {
  // Otherwise the child would write again what is still buffered.
  std::fflush(nullptr);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    body();
    std::fflush(nullptr);
    ::_exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

void asOrdinaryUser(const std::function<void()>& body) {
  constexpr uid_t kNobody = 65534;
  inChildProcess([&body] {
    ASSERT_EQ(::setresuid(kNobody, kNobody, kNobody), 0) << "run as root";
    body();
  });
}

void withoutCapabilities(const std::function<void()>& body) {
  withCapabilities(0, body);
}

void withOnlyCapability(unsigned capability, const std::function<void()>& body) {
  withCapabilities(1U << capability, body);
}

}  // namespace ostravel::testing
