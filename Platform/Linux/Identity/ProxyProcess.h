#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Platform/Linux/Processes/ProcessTable.h"
#include "Platform/Linux/Tracing/ListenerWatch.h"

namespace ostravel::linuxplatform {

// Identifies the local proxy: the process that owns the socket listening for 127.0.0.1 on the
// proxy's port, whatever its program and however often it restarts. It includes all processes of
// its service unit, all with its executable and user, and those that inherited the socket from a
// service manager; the same applies to every process that is added, because a proxy may consist of
// several programs. ProxyTrust decides whether the listener is a proxy, and for whom.
//
// Queried for every flow: one exact look-up shows whether the socket is still the same. With a
// watch, even this look-up is made only after a change. After a change its owner is searched for
// within the limits per flow, and is unknown until found. Used by one thread at a time.
class ProxyProcess {
 public:
  enum class State {
    // Nothing listens on the port.
    absent,
    // Something listens, but its owner has not been found yet. Any flow may be the proxy's own.
    unknown,
    known,
  };

  struct SearchLimits {
    // Search time per held first packet, nearly always enough to finish; spent once per start of
    // the proxy.
    std::chrono::milliseconds work{20};
    // The longest wait of that packet: enough for the search on a machine that gives us a fifth of
    // a core, and well below the second after which TCP retransmits.
    std::chrono::milliseconds longest{100};
  };

  // Where a local proxy listens.
  static SocketEndpoint addressOf(std::uint16_t port);

  // diagnostics and processes outlive this object. warn receives a sentence for the log.
  ProxyProcess(SocketDiagnostics& diagnostics, ProcessTable& processes, std::uint16_t port,
               std::function<void(const std::string&)> warn,
               std::optional<ListenerWatch> watch = std::nullopt);
  // For tests, with other limits.
  ProxyProcess(SocketDiagnostics& diagnostics, ProcessTable& processes, std::uint16_t port,
               std::function<void(const std::string&)> warn, const SearchLimits& limits,
               std::optional<ListenerWatch> watch = std::nullopt);

  std::uint16_t port() const { return address_.port; }

  // Checks which process listens now. If the owner has to be found, sender is the first candidate.
  State refresh(std::optional<pid_t> sender);

  // The same, without relying on the watch. Call it periodically.
  State recheck();

  // The watch's count, if the result of the last refresh is valid until the count changes.
  std::optional<std::uint64_t> settledChanges() const;

  // The following are valid if the last refresh returned State::known.

  // Identifies this instance of the proxy; changes with every restart.
  std::uint64_t listenerCookie() const { return listener_.cookie; }
  const SocketInformation& listener() const { return listener_; }
  const Process& owner() const { return *owner_; }
  const ProcessLife& ownerLife() const { return *ownerLife_; }
  uid_t uid() const { return owner_->stamp.uid; }
  // Empty if that is not known.
  std::optional<bool> includes(const Process& process) const;
  // True if a process of this user could be part of the proxy.
  bool mayRunAs(uid_t user) const;

  // Makes this process part of the proxy until another socket listens.
  void add(Process process);

 private:
  // A result that is valid until the watch reports a change.
  struct Settled {
    State state;
    std::uint64_t changes;
  };

  State examine(std::optional<pid_t> sender);
  // Adapts the watch to this state; true if it was for another one until now.
  bool hasWatchMoved(State state);
  State findOwner(std::optional<pid_t> sender);
  void takeOwner(std::optional<Process> owner);
  // True once the owner has been described as far as the time limits permit.
  bool isOwnerDescribed();
  void beginSearch(const SocketInformation& listener);
  static bool belongTogether(const Process& process, const Process& member);

  SocketDiagnostics& diagnostics_;
  ProcessTable& processes_;
  const SocketEndpoint address_;
  const std::function<void(const std::string&)> warn_;
  const std::optional<ListenerWatch> watch_;
  // The listener that is watched, 0 if there is none, and the process whose end is watched.
  std::uint64_t watchedListener_ = 0;
  std::optional<pid_t> watched_;
  // Present while nothing has changed since the last examination.
  std::optional<Settled> settled_;
  const SearchLimits limits_;
  SocketInformation listener_;
  // Both or neither.
  std::optional<Process> owner_;
  std::optional<ProcessLife> ownerLife_;
  std::vector<Process> others_;
  std::chrono::steady_clock::time_point ownerFound_;
  // Present while the owner of listener_ is being searched for.
  std::optional<HolderSearch> search_;
  std::uint64_t searches_ = 0;
  std::chrono::steady_clock::time_point nextSearch_;
  bool hasWarned_ = false;
};

}  // namespace ostravel::linuxplatform
