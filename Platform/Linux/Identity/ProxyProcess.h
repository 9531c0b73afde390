#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Platform/Linux/Processes/ProcessTable.h"
#include "Platform/Linux/Processes/SocketHolderSearch.h"

namespace ostravel::linuxplatform {

// Who the local proxy is: the process that owns the socket which connections to 127.0.0.1 on the
// proxy's port reach, whichever program that is and however often it restarts. Part of it are all
// processes of its service unit, of its executable and user, and those that were handed the socket
// by a service manager; and the same of every process that is added, because a proxy may consist of
// several programs. Whether what listens is a proxy, and for whom, is not decided here.
//
// Asked for every flow: one exact look-up tells whether the socket is still the same. After a
// change, its owner is searched for within kSearchBudget per flow, and until it is found nothing is
// known. Used by one thread at a time.
class ProxyProcess {
 public:
  enum class State {
    // Nothing listens on the port.
    absent,
    // Something listens, and whose it is has not been found out. Any flow may be the proxy's own.
    unknown,
    known,
  };

  // How long the search may run for one held first packet, which is nearly always enough to end it;
  // once per start of the proxy.
  static constexpr std::chrono::milliseconds kSearchBudget{20};
  // And how long that packet may wait for it. Enough for the budget on a machine that gives us a
  // fifth of a core, and far from the second after which TCP sends a packet again.
  static constexpr std::chrono::milliseconds kLongestSearch{100};

  // The other two outlive this one. warn takes a sentence for people.
  ProxyProcess(SocketDiagnostics& diagnostics, const ProcessTable& processes, std::uint16_t port,
               std::function<void(const std::string&)> warn);

  // Looks who listens now. sender is the first candidate when the owner has to be found.
  State refresh(std::optional<pid_t> sender);

  // The following are valid when the last refresh returned State::known.

  // Stands for the proxy as it is now; another one after every restart.
  std::uint64_t listenerCookie() const { return listener_.cookie; }
  const SocketInformation& listener() const { return listener_; }
  const Process& owner() const { return *owner_; }
  uid_t uid() const { return owner_->stamp.uid; }
  bool includes(const Process& process) const;
  // Whether a process of this user could be part of it.
  bool mayRunAs(uid_t user) const;

  // Makes this process part of the proxy until another socket listens.
  void add(Process process);

 private:
  State findOwner(std::optional<pid_t> sender);
  // Whether all is known about the owner that can be found out in good time.
  bool isOwnerDescribed();
  void beginSearch(const SocketInformation& listener);
  static bool belongTogether(const Process& process, const Process& member);

  SocketDiagnostics& diagnostics_;
  const ProcessTable& processes_;
  const SocketEndpoint address_;
  const std::function<void(const std::string&)> warn_;
  SocketInformation listener_;
  std::optional<Process> owner_;
  std::vector<Process> others_;
  std::chrono::steady_clock::time_point ownerFound_;
  // While the owner of listener_ is being searched for.
  std::optional<SocketHolderSearch> search_;
  std::chrono::steady_clock::time_point nextSearch_;
  bool hasWarned_ = false;
};

}  // namespace ostravel::linuxplatform
