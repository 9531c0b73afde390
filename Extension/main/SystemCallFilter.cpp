#include "Extension/main/SystemCallFilter.h"

#include <fcntl.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <type_traits>
#include <utility>

namespace ostravel::linuxplatform {
namespace {

// Names that an architecture does not have are skipped.
constexpr std::array kPermitted{
    // Memory
    "brk", "madvise", "membarrier", "mmap", "mprotect", "mremap", "munmap",
    // Threads
    "arch_prctl", "exit", "exit_group", "futex", "futex_waitv", "get_robust_list", "gettid",
    "prctl", "restart_syscall", "rseq", "sched_get_priority_max", "sched_get_priority_min",
    "sched_getaffinity", "sched_getparam", "sched_getscheduler", "sched_setscheduler",
    "sched_yield", "set_robust_list", "set_tid_address", "setpriority",
    // Time
    "clock_getres", "clock_gettime", "clock_nanosleep", "gettimeofday", "nanosleep", "time",
    "timerfd_create", "timerfd_gettime", "timerfd_settime",
    // Signals and the guardian
    "kill", "pause", "pidfd_open", "pidfd_send_signal", "rt_sigaction", "rt_sigpending",
    "rt_sigprocmask", "rt_sigreturn", "rt_sigsuspend", "rt_sigtimedwait", "rt_tgsigqueueinfo",
    "sigaltstack", "tgkill", "wait4", "waitid",
    // Attributes of the process
    "capget", "capset", "getcpu", "getegid", "geteuid", "getgid", "getgroups", "getpgid", "getpgrp",
    "getpid", "getppid", "getpriority", "getrandom", "getresgid", "getresuid", "getrlimit",
    "getrusage", "getsid", "getuid", "prlimit64", "seccomp", "setrlimit", "sysinfo", "umask",
    "uname",
    // Files; see also kOpening. Names are removed when the control socket is closed.
    "access", "chdir", "close", "close_range", "dup", "dup2", "dup3", "faccessat", "faccessat2",
    "fadvise64", "fcntl", "fdatasync", "fgetxattr", "flock", "fstat", "fstatfs", "fsync", "getcwd",
    "getdents", "getdents64", "getxattr", "inotify_add_watch", "inotify_init1", "inotify_rm_watch",
    "ioctl", "lgetxattr", "lseek", "lstat", "memfd_create", "name_to_handle_at", "newfstatat",
    "openat2", "pread64", "preadv", "preadv2", "pwrite64", "pwritev", "pwritev2", "read",
    "readlink", "readlinkat", "readv", "rmdir", "stat", "statfs", "statx", "unlink", "unlinkat",
    "write", "writev",
    // Waiting, pipes
    "epoll_create", "epoll_create1", "epoll_ctl", "epoll_pwait", "epoll_pwait2", "epoll_wait",
    "eventfd", "eventfd2", "pipe", "pipe2", "poll", "ppoll", "pselect6", "select", "signalfd4",
    "splice", "tee",
    // Sockets
    "accept", "accept4", "bind", "connect", "getpeername", "getsockname", "getsockopt", "listen",
    "recvfrom", "recvmmsg", "recvmsg", "sendmmsg", "sendmsg", "sendto", "setsockopt", "shutdown",
    "socket", "socketpair",
    // The recording of connects, with a detached mount of the control groups
    "bpf", "fsconfig", "fsmount", "fsopen"};

constexpr std::array kDeadly{"execve",
                             "execveat",
                             "ptrace",
                             "process_vm_readv",
                             "process_vm_writev",
                             "mount",
                             "umount2",
                             "pivot_root",
                             "chroot",
                             "open_tree",
                             "move_mount",
                             "mount_setattr",
                             "setns",
                             "unshare",
                             "init_module",
                             "finit_module",
                             "delete_module",
                             "kexec_load",
                             "kexec_file_load",
                             "reboot",
                             "swapon",
                             "swapoff",
                             "open_by_handle_at",
                             "keyctl",
                             "add_key",
                             "request_key",
                             "io_uring_setup",
                             "userfaultfd",
                             "settimeofday",
                             "clock_settime"};

// Calls with the index of their flags.
struct Opening {
  const char* name;
  unsigned flags;
};
constexpr std::array<Opening, 2> kOpening{{{"open", 1}, {"openat", 2}}};

// Calls that no running event loop makes.
constexpr std::array kDeadlyForRelays{"listen"};
constexpr std::array kNotForRelays{"rmdir", "unlink", "unlinkat"};
constexpr std::array kNotWithInspector{
    "access",     "chdir",         "faccessat",         "faccessat2",        "getdents",
    "getdents64", "inotify_init1", "inotify_add_watch", "name_to_handle_at", "open",
    "openat",     "openat2",       "readlink",          "readlinkat"};

// It serves connections that it is given, and reports to the service manager (sd_notify(3)).
constexpr std::array kPermittedForInspector{"accept4",
                                            "brk",
                                            "clock_gettime",
                                            "clock_nanosleep",
                                            "close",
                                            "eventfd2",
                                            "exit",
                                            "exit_group",
                                            "fcntl",
                                            "fstat",
                                            "futex",
                                            "getcwd",
                                            "getdents64",
                                            "geteuid",
                                            "getpid",
                                            "getrandom",
                                            "getsockopt",
                                            "gettid",
                                            "gettimeofday",
                                            "getuid",
                                            "lseek",
                                            "lstat",
                                            "madvise",
                                            "mmap",
                                            "mprotect",
                                            "mremap",
                                            "munmap",
                                            "newfstatat",
                                            "openat2",
                                            "poll",
                                            "ppoll",
                                            "pread64",
                                            "read",
                                            "readlink",
                                            "readlinkat",
                                            "readv",
                                            "recvfrom",
                                            "recvmsg",
                                            "restart_syscall",
                                            "rseq",
                                            "rt_sigaction",
                                            "rt_sigprocmask",
                                            "rt_sigreturn",
                                            "sched_getaffinity",
                                            "sched_yield",
                                            "sendmsg",
                                            "sendto",
                                            "set_robust_list",
                                            "setsockopt",
                                            "shutdown",
                                            "sigaltstack",
                                            "stat",
                                            "statx",
                                            "sysinfo",
                                            "tgkill",
                                            "write",
                                            "writev"};

// It reads how long the extension's threads have run, and writes one line.
constexpr std::array kPermittedForGuardian{
    "brk",          "clock_gettime",  "close",        "exit",
    "exit_group",   "fcntl",          "fstat",        "futex",
    "getdents64",   "getpid",         "gettid",       "gettimeofday",
    "lseek",        "madvise",        "mmap",         "mprotect",
    "mremap",       "munmap",         "newfstatat",   "pidfd_send_signal",
    "poll",         "ppoll",          "read",         "restart_syscall",
    "rt_sigaction", "rt_sigprocmask", "rt_sigreturn", "sched_yield",
    "sigaltstack",  "tgkill",         "write"};

constexpr std::array kUseOfNetlink{"bind", "getsockname", "recvmsg", "sendto", "setsockopt"};

struct Release {
  void operator()(void* filter) const { ::seccomp_release(filter); }
};
using Filter = std::unique_ptr<std::remove_pointer_t<scmp_filter_ctx>, Release>;

// False with errno if a rule cannot be added.
template <typename Names>
bool add(void* filter, std::uint32_t action, const Names& names) {
  return std::all_of(names.begin(), names.end(), [filter, action](const char* name) {
    const int number = ::seccomp_syscall_resolve_name(name);
    if (number < 0) {
      return true;
    }
    const int result = ::seccomp_rule_add_array(filter, action, number, 0, nullptr);
    errno = -result;
    return result == 0;
  });
}

// Permits new threads, but no new processes. clone3(2) fails with ENOSYS, because a filter cannot
// read its flags.
bool permitThreads(void* filter) {
  const scmp_arg_cmp isThread{
      .arg = 0, .op = SCMP_CMP_MASKED_EQ, .datum_a = CLONE_THREAD, .datum_b = CLONE_THREAD};
  const int result =
      ::seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, SCMP_SYS(clone), 1, &isThread);
  errno = -result;
  return result == 0;
}

bool set(void* filter, scmp_filter_attr attribute, std::uint32_t value) {
  const int result = ::seccomp_attr_set(filter, attribute, value);
  errno = -result;
  return result == 0;
}

// For reading, or as a place (O_PATH).
bool permitReading(void* filter) {
  constexpr scmp_datum_t kWriting = O_ACCMODE | O_CREAT | O_TRUNC | O_APPEND;
  return std::all_of(kOpening.begin(), kOpening.end(), [filter](const Opening& opening) {
    const int number = ::seccomp_syscall_resolve_name(opening.name);
    const scmp_arg_cmp isForReading{
        .arg = opening.flags, .op = SCMP_CMP_MASKED_EQ, .datum_a = kWriting, .datum_b = O_RDONLY};
    const int result =
        number < 0 ? 0 : ::seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, number, 1, &isForReading);
    errno = -result;
    return result == 0;
  });
}

bool permitSockets(void* filter, int family) {
  const scmp_arg_cmp isOfFamily{
      .arg = 0, .op = SCMP_CMP_EQ, .datum_a = static_cast<scmp_datum_t>(family), .datum_b = 0};
  const int result =
      ::seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, SCMP_SYS(socket), 1, &isOfFamily);
  errno = -result;
  return result == 0;
}

// For a process that has no other sockets.
bool permitNetlink(void* filter) {
  return permitSockets(filter, AF_NETLINK) && add(filter, SCMP_ACT_ALLOW, kUseOfNetlink);
}

// Local datagrams, for the service manager.
bool permitNotifications(void* filter) {
  return permitSockets(filter, AF_UNIX);
}

bool load(void* filter) {
  const int result = ::seccomp_load(filter);
  errno = -result;
  return result == 0;
}

Filter makeFilter(std::uint32_t otherwise) {
  Filter filter(::seccomp_init(otherwise));
  // A tree instead of a list; the kernel caches the answers that do not depend on arguments.
  constexpr std::uint32_t kBinaryTree = 2;
  const bool isMade = filter && set(filter.get(), SCMP_FLTATR_CTL_OPTIMIZE, kBinaryTree);
  return isMade ? std::move(filter) : nullptr;
}

platform::OptionalError outcome(bool isDone) {
  return isDone ? std::nullopt
                : platform::OptionalError(platform::systemCallError(
                      errno, "system calls cannot be restricted (seccomp)"));
}

}  // namespace

platform::OptionalError SystemCallFilter::install() {
  const Filter filter = makeFilter(SCMP_ACT_ERRNO(ENOSYS));
  return outcome(filter && set(filter.get(), SCMP_FLTATR_CTL_TSYNC, 1) &&
                 add(filter.get(), SCMP_ACT_ALLOW, kPermitted) &&
                 add(filter.get(), SCMP_ACT_KILL_PROCESS, kDeadly) && permitThreads(filter.get()) &&
                 permitReading(filter.get()) && load(filter.get()));
}

platform::OptionalError SystemCallFilter::restrictRelay() {
  const Filter filter = makeFilter(SCMP_ACT_ALLOW);
  return outcome(filter && add(filter.get(), SCMP_ACT_KILL_PROCESS, kDeadlyForRelays) &&
                 add(filter.get(), SCMP_ACT_ERRNO(ENOSYS), kNotForRelays) &&
                 add(filter.get(), SCMP_ACT_ERRNO(ENOSYS), kNotWithInspector) &&
                 load(filter.get()));
}

platform::OptionalError SystemCallFilter::restrictInspectingRelay() {
  const Filter filter = makeFilter(SCMP_ACT_ALLOW);
  return outcome(filter && add(filter.get(), SCMP_ACT_KILL_PROCESS, kDeadlyForRelays) &&
                 add(filter.get(), SCMP_ACT_ERRNO(ENOSYS), kNotForRelays) && load(filter.get()));
}

platform::OptionalError SystemCallFilter::restrictInspector() {
  const Filter filter = makeFilter(SCMP_ACT_ERRNO(ENOSYS));
  return outcome(filter && add(filter.get(), SCMP_ACT_ALLOW, kPermittedForInspector) &&
                 add(filter.get(), SCMP_ACT_KILL_PROCESS, kDeadly) && permitThreads(filter.get()) &&
                 permitNotifications(filter.get()) && permitReading(filter.get()) &&
                 load(filter.get()));
}

platform::OptionalError SystemCallFilter::restrictGuardian() {
  const Filter filter = makeFilter(SCMP_ACT_ERRNO(ENOSYS));
  return outcome(filter && add(filter.get(), SCMP_ACT_ALLOW, kPermittedForGuardian) &&
                 add(filter.get(), SCMP_ACT_KILL_PROCESS, kDeadly) && permitReading(filter.get()) &&
                 permitNetlink(filter.get()) && load(filter.get()));
}

}  // namespace ostravel::linuxplatform
