#include "Platform/Linux/Identity/ProxyProcess.h"

#include <netinet/in.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace ostravel::linuxplatform {

namespace {

// The pause between two searches through all processes that found nothing.
constexpr std::chrono::milliseconds kSearchInterval{250};
// How long the file system of the proxy's executable may take to answer. Without its answer, a
// second process of the proxy may not be recognised.
constexpr std::chrono::seconds kExecutablePatience{1};

}  // namespace

ProxyProcess::ProxyProcess(SocketDiagnostics& diagnostics, ProcessTable& processes,
                           std::uint16_t port, std::function<void(const std::string&)> warn,
                           std::optional<ListenerWatch> watch)
    : ProxyProcess(diagnostics, processes, port, std::move(warn), SearchLimits(), watch) {}

ProxyProcess::ProxyProcess(SocketDiagnostics& diagnostics, ProcessTable& processes,
                           std::uint16_t port, std::function<void(const std::string&)> warn,
                           const SearchLimits& limits, std::optional<ListenerWatch> watch)
    : diagnostics_(diagnostics),
      processes_(processes),
      address_(addressOf(port)),
      warn_(std::move(warn)),
      watch_(watch),
      limits_(limits) {}

SocketEndpoint ProxyProcess::addressOf(std::uint16_t port) {
  return {AddressFamily::ipv4, {IN_LOOPBACKNET, 0, 0, 1}, port};
}

ProxyProcess::State ProxyProcess::refresh(std::optional<pid_t> sender) {
  if (!watch_) {
    return examine(sender);
  }
  const auto changes = watch_->changes();
  if (settled_ && settled_->changes == changes) {
    return settled_->state;
  }
  settled_.reset();
  const State state = examine(sender);
  if (state != State::unknown && !hasWatchMoved(state)) {
    settled_ = {state, changes};
  }
  return state;
}

bool ProxyProcess::hasWatchMoved(State state) {
  const std::uint64_t listener = state == State::known ? listener_.cookie : 0;
  const bool isOther = std::exchange(watchedListener_, listener) != listener;
  if (isOther) {
    watch_->noteChange();
  }
  if (state == State::known && watched_ != owner_->pid) {
    // It may have ended just before it was watched.
    watched_ = owner_->pid;
    watch_->watch(owner_->pid);
    return true;
  }
  return isOther;
}

std::optional<std::uint64_t> ProxyProcess::settledChanges() const {
  return settled_ ? std::optional(settled_->changes) : std::nullopt;
}

ProxyProcess::State ProxyProcess::recheck() {
  settled_.reset();
  return refresh(std::nullopt);
}

ProxyProcess::State ProxyProcess::examine(std::optional<pid_t> sender) {
  const auto answer = diagnostics_.findListener(address_);
  if (!answer) {
    return State::unknown;
  }
  const auto& listener = *answer;
  if (!listener) {
    return State::absent;
  }
  if (listener->cookie != listener_.cookie) {
    beginSearch(*listener);
  }
  if (!owner_ && findOwner(sender) != State::known) {
    return State::unknown;
  }
  return isOwnerDescribed() ? State::known : State::unknown;
}

bool ProxyProcess::isOwnerDescribed() {
  if (!owner_->isExecutableSettled) {
    processes_.refreshExecutable(*owner_);
  }
  return owner_->isExecutableSettled ||
         std::chrono::steady_clock::now() - ownerFound_ > kExecutablePatience;
}

void ProxyProcess::beginSearch(const SocketInformation& listener) {
  std::vector<pid_t> first;
  if (owner_) {
    // The same process may have created a new socket.
    first.push_back(owner_->pid);
  }
  listener_ = listener;
  owner_.reset();
  others_.clear();
  search_ = {.number = ++searches_,
             .inode = listener.inode,
             .first = std::move(first),
             .preferredUser = std::nullopt};
}

ProxyProcess::State ProxyProcess::findOwner(std::optional<pid_t> sender) {
  if (!search_) {
    if (std::chrono::steady_clock::now() < nextSearch_) {
      return State::unknown;
    }
    beginSearch(listener_);
  }
  // All flows wait for this search, so it may use the reserve.
  SearchAllowance& allowance = processes_.allowance();
  if (!allowance.permits(std::nullopt)) {
    return State::unknown;
  }
  const auto step = processes_.proceed(*search_, sender, limits_.work, limits_.longest);
  if (step.result == HolderSearchStep::Result::unfinished) {
    return State::unknown;
  }
  if (step.result == HolderSearchStep::Result::found) {
    takeOwner(processes_.find(step.holder));
  }
  search_.reset();
  if (owner_) {
    ownerFound_ = std::chrono::steady_clock::now();
    return State::known;
  }
  // The socket has just been handed over, or we may not inspect its holder.
  nextSearch_ = std::chrono::steady_clock::now() + kSearchInterval;
  if (!std::exchange(hasWarned_, true)) {
    warn_("the process that listens on port " + std::to_string(address_.port) +
          " cannot be found; until it is, every flow is left to the system");
  }
  return State::unknown;
}

void ProxyProcess::takeOwner(std::optional<Process> owner) {
  ownerLife_ = owner ? processes_.lifeOf(*owner) : std::nullopt;
  if (ownerLife_) {
    owner_ = std::move(owner);
  }
}

std::optional<bool> ProxyProcess::includes(const Process& process) const {
  const auto isRelated = [&process](const Process& member) {
    return belongTogether(process, member);
  };
  if (isRelated(*owner_) || std::ranges::any_of(others_, isRelated)) {
    return true;
  }
  return processes_.hasInherited(process.pid, listener_.inode);
}

bool ProxyProcess::mayRunAs(uid_t user) const {
  return user == owner_->stamp.uid || std::ranges::any_of(others_, [user](const Process& other) {
           return other.stamp.uid == user;
         });
}

void ProxyProcess::add(Process process) {
  others_.push_back(std::move(process));
}

bool ProxyProcess::belongTogether(const Process& process, const Process& member) {
  const bool isMember =
      process.pid == member.pid && process.stamp.startTime == member.stamp.startTime;
  const bool sharesService =
      !member.serviceGroup.empty() && process.serviceGroup == member.serviceGroup;
  // After an update, the old and the new file have only the path in common.
  const bool sharesExecutable =
      (process.executableFile && process.executableFile == member.executableFile) ||
      (process.isExecutableGenuine && (member.isExecutableGenuine || member.isExecutableDeleted) &&
       process.executable == member.executable);
  return isMember || sharesService || (process.stamp.uid == member.stamp.uid && sharesExecutable);
}

}  // namespace ostravel::linuxplatform
