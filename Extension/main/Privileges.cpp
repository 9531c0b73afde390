#include "Extension/main/Privileges.h"

#include <dirent.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <span>

namespace ostravel::linuxplatform {

namespace {

constexpr unsigned kBitsPerWord = 32;

// Tests the first process, which belongs to root and usually has every capability.
bool canLookAtFirstProcess() {
  struct Close {
    void operator()(DIR* folder) const { ::closedir(folder); }
  };
  const std::unique_ptr<DIR, Close> sockets(::opendir("/proc/1/fd"));
  std::array<char, 1> target{};
  return sockets && ::readlink("/proc/1/exe", target.data(), target.size()) > 0;
}

// The guardian has been started before, and the socket that needs CAP_NET_RAW is open.
constexpr std::array<unsigned, 5> kUsed{CAP_DAC_OVERRIDE, CAP_NET_ADMIN, CAP_SYS_RESOURCE,
                                        CAP_PERFMON, CAP_BPF};
constexpr std::array<unsigned, 2> kUsedForInspection{CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH};

std::uint64_t maskOf(std::span<const unsigned> capabilities) {
  std::uint64_t mask = 0;
  for (const unsigned capability : capabilities) {
    mask |= std::uint64_t{1} << capability;
  }
  return mask;
}

std::uint64_t usedCapabilities(Privileges::Inspection inspection) {
  std::uint64_t used = maskOf(kUsed);
  if (inspection == Privileges::Inspection::own) {
    used |= maskOf(kUsedForInspection);
  }
  // Older kernels do not know the last two and require CAP_SYS_ADMIN instead.
  if (::prctl(PR_CAPBSET_READ, CAP_BPF) < 0) {
    used |= std::uint64_t{1} << CAP_SYS_ADMIN;
  }
  return used;
}

platform::OptionalError giveUpAllBut(std::uint64_t used) {
  // Without CAP_SETPCAP the bounding set remains, but no_new_privs makes it useless.
  for (unsigned capability = 0; ::prctl(PR_CAPBSET_READ, capability) >= 0; ++capability) {
    if ((used >> capability & 1U) == 0) {
      ::prctl(PR_CAPBSET_DROP, capability);
    }
  }
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data{};
  bool isDone = ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
                ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0 &&
                ::syscall(SYS_capget, &header, data.data()) == 0;
  bool isMore = false;
  for (unsigned word = 0; word < data.size(); ++word) {
    const auto kept = static_cast<std::uint32_t>(used >> (word * kBitsPerWord));
    isMore = isMore || (data[word].permitted & ~kept) != 0;
    data[word].effective &= kept;
    data[word].permitted &= kept;
    data[word].inheritable = 0;
  }
  // A process that has only these already may run under a filter that forbids capset(2).
  isDone = isDone && (!isMore || ::syscall(SYS_capset, &header, data.data()) == 0);
  return isDone ? std::nullopt
                : platform::OptionalError(
                      platform::systemCallError(errno, "permissions cannot be given up"));
}

}  // namespace

platform::OptionalError Privileges::giveUpUnused(Inspection inspection) {
  return giveUpAllBut(usedCapabilities(inspection));
}

platform::OptionalError Privileges::giveUpAllButInspection() {
  return giveUpAllBut(maskOf(kUsedForInspection));
}

Privileges Privileges::ofThisProcess() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data{};
  if (::syscall(SYS_capget, &header, data.data()) != 0) {
    return {0, false};
  }
  const std::uint64_t capabilities = data[0].effective | std::uint64_t{data[1].effective}
                                                             << kBitsPerWord;
  return {capabilities, canLookAtFirstProcess(), ::getpriority(PRIO_PROCESS, 0) < 0};
}

bool Privileges::has(unsigned capability) const {
  return (capabilities_ >> capability & 1U) != 0;
}

bool Privileges::canReadEverything() const {
  return has(CAP_DAC_READ_SEARCH) || has(CAP_DAC_OVERRIDE);
}

// Before Linux 5.8, CAP_SYS_ADMIN was needed instead of CAP_BPF and CAP_PERFMON.
bool Privileges::canTrace() const {
  return has(CAP_SYS_ADMIN) || (has(CAP_BPF) && has(CAP_PERFMON));
}

std::string Privileges::missingForInspection() const {
  if (seesProcesses_) {
    return {};
  }
  std::string missing = has(CAP_SYS_PTRACE) ? "" : "CAP_SYS_PTRACE";
  if (!canReadEverything()) {
    missing += missing.empty() ? "CAP_DAC_READ_SEARCH" : ", CAP_DAC_READ_SEARCH";
  }
  return missing;
}

platform::OptionalError Privileges::inspectionObstacle() const {
  const std::string missing = missingForInspection();
  return missing.empty() ? std::nullopt
                         : platform::OptionalError(platform::posixError(
                               EPERM, "the permission to look at other processes (" + missing +
                                          ") is missing: run as root"));
}

platform::OptionalError Privileges::obstacle(Inspection inspection) const {
  if (!has(CAP_NET_ADMIN)) {
    return platform::posixError(
        EPERM, "the permission to administer the network (CAP_NET_ADMIN) is missing: run as root");
  }
  const std::string missing = inspection == Inspection::own ? missingForInspection() : "";
  if (!missing.empty()) {
    return platform::posixError(
        EPERM, "the permission to look at other processes (" + missing +
                   ") is missing, without which no local proxy can be recognised and every "
                   "connection would go direct: run as root");
  }
  return std::nullopt;
}

std::vector<std::string> Privileges::losses(Inspection inspection) const {
  std::vector<std::string> sentences;
  const bool isOwn = inspection == Inspection::own;
  if (isOwn && !has(CAP_SYS_PTRACE)) {
    sentences.emplace_back(
        "CAP_SYS_PTRACE is missing: the programs of other users, and those with more permissions, "
        "have no identifier and cannot be the local proxy");
  }
  if (isOwn && !canReadEverything()) {
    sentences.emplace_back(
        "CAP_DAC_READ_SEARCH is missing: a program of another user cannot be the local proxy");
  }
  if (!canTrace()) {
    sentences.emplace_back(
        "CAP_BPF or CAP_PERFMON is missing: processes are looked up in /proc, which costs time for "
        "each connection and misses those that end at once");
  }
  if (!has(CAP_NET_RAW)) {
    sentences.emplace_back(
        "CAP_NET_RAW is missing: rules of firewalls for users, groups and control groups do not "
        "apply to connections that are proxied");
  }
  if (!has(CAP_SYS_NICE) && !isPreferred_) {
    sentences.emplace_back(
        "CAP_SYS_NICE is missing: on a very busy machine the guardian may notice a hang late");
  }
  return sentences;
}

}  // namespace ostravel::linuxplatform
