#include "Tests/Platform/Linux/Support/FailingCalls.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Base/FileDescriptor.h"

namespace ostravel::testing {

namespace {

// Those that get something from the kernel, or give it something, and may therefore fail. Not
// pipe2(2), with which UndefinedBehaviorSanitizer finds out whether an address can be read.
constexpr std::array kCalls{
    SYS_accept4,   SYS_bind,        SYS_bpf,        SYS_connect, SYS_epoll_create1, SYS_epoll_ctl,
    SYS_eventfd2,  SYS_fcntl,       SYS_fsconfig,   SYS_fsmount, SYS_fsopen,        SYS_getpeername,
    SYS_getrandom, SYS_getsockname, SYS_getsockopt, SYS_ioctl,   SYS_listen,        SYS_newfstatat,
    SYS_openat,    SYS_openat2,     SYS_pidfd_open, SYS_pread64, SYS_read,          SYS_readlink,
    SYS_recvfrom,  SYS_recvmmsg,    SYS_recvmsg,    SYS_sendmsg, SYS_sendto,        SYS_setsockopt,
    SYS_socket,    SYS_splice,
};

using Filter = std::vector<sock_filter>;

// The result of seccomp(2).
int install(Filter filter, unsigned flags) {
  const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  EXPECT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  return static_cast<int>(::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &program));
}

sock_filter load(std::size_t place) {
  return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(place));
}

sock_filter skipUnless(std::uint32_t value, std::uint8_t count) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, count);
}

sock_filter answer(std::uint32_t action) {
  return BPF_STMT(BPF_RET | BPF_K, action);
}

// The filter's listener (seccomp_unotify(2)).
FileDescriptor observeCalls() {
  Filter filter{load(offsetof(seccomp_data, nr))};
  for (const long number : kCalls) {
    filter.push_back(skipUnless(static_cast<std::uint32_t>(number), 1));
    filter.push_back(answer(SECCOMP_RET_USER_NOTIF));
  }
  filter.push_back(answer(SECCOMP_RET_ALLOW));
  return FileDescriptor(install(std::move(filter), SECCOMP_FILTER_FLAG_NEW_LISTENER));
}

struct Fault {
  // From 1.
  std::size_t position = 0;
  int error = 0;
  // The call's number, once it has failed.
  std::optional<int> failed;
};

// Answers the calls of a thread, and of those that it starts, until all have ended.
void supervise(const FileDescriptor& listener, pid_t thread, Fault& fault) {
  std::size_t count = 0;
  pollfd waited{listener.get(), POLLIN, 0};
  while (::poll(&waited, 1, -1) > 0 && (waited.revents & POLLIN) != 0) {
    seccomp_notif call{};
    if (::ioctl(listener.get(), SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) {
      continue;
    }
    seccomp_notif_resp response{call.id, 0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE};
    if (static_cast<pid_t>(call.pid) == thread && ++count == fault.position) {
      fault.failed = call.data.nr;
      response.error = -fault.error;
      response.flags = 0;
    }
    ::ioctl(listener.get(), SECCOMP_IOCTL_NOTIF_SEND, &response);
  }
}

// False if it has not worked although no call has failed.
bool isExcused(const std::function<bool()>& use, Fault& fault) {
  struct Observed {
    FileDescriptor listener;
    pid_t thread = 0;
  };
  std::promise<Observed> observed;
  bool hasWorked = false;
  std::thread user([&] {
    FileDescriptor listener = observeCalls();
    const bool isObserved = listener.isOpen();
    observed.set_value({std::move(listener), ::gettid()});
    hasWorked = isObserved && use();
  });
  {
    const Observed self = observed.get_future().get();
    if (self.listener.isOpen()) {
      supervise(self.listener, self.thread, fault);
    }
  }
  user.join();
  return hasWorked || fault.failed;
}

}  // namespace

void failCalls(const SystemCall& call, int error) {
  Filter filter{load(offsetof(seccomp_data, nr)),
                skipUnless(static_cast<std::uint32_t>(call.number), call.argument ? 3 : 1)};
  if (call.argument) {
    // On a machine of little-endian order.
    filter.push_back(
        load(offsetof(seccomp_data, args) + call.argument->place * sizeof(std::uint64_t)));
    filter.push_back(skipUnless(call.argument->value, 1));
  }
  filter.push_back(answer(SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)));
  filter.push_back(answer(SECCOMP_RET_ALLOW));
  EXPECT_EQ(install(std::move(filter), 0), 0);
}

void withFailingCalls(const SystemCall& call, int error, const std::function<void()>& body) {
  std::thread([&] {
    failCalls(call, error);
    body();
  }).join();
}

void withEachCallFailing(int error, const std::function<bool()>& use) {
  for (Fault fault{1, error, std::nullopt};; fault = {fault.position + 1, error, std::nullopt}) {
    EXPECT_TRUE(isExcused(use, fault)) << "no call has failed";
    if (!fault.failed) {
      return;
    }
    if (::testing::Test::HasFailure()) {
      FAIL() << "call " << fault.position << ", number " << *fault.failed << ", has failed";
    }
  }
}

}  // namespace ostravel::testing
