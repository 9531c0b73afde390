#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Platform/Linux/ApplicationRegistrations.h"
#include "Platform/Linux/ConnectTracer.h"
#include "Platform/Linux/FlowTuple.h"
#include "Platform/Linux/Identification.h"
#include "Platform/Linux/ProcessTable.h"
#include "Platform/Linux/ProxyProcess.h"
#include "Platform/Linux/ProxyTrust.h"
#include "Platform/Linux/SocketDiagnostics.h"

namespace ostravel::linuxplatform {

// Finds the application that sends a flow: its socket, the process of that, and what the process is
// called. In this order:
//
//   1. the local proxy, whichever program that is, is kProxyIdentifier;
//   2. the administrator's registrations;
//   3. the absolute path of the executable.
//
// The core exempts flows by identifier. No process can give itself such an identifier: 1 and 2 do
// not depend on what a process says, and 3 always begins with "/".
//
// Owned by the verdict thread's owner and used by that thread alone after it was made, in the
// network namespace in which it was made. Does bounded work only: tens of microseconds for a known
// process, and never more than the budgets of ProcessTable and ProxyProcess together.
class ApplicationIdentifierSource {
 public:
  using Warn = std::function<void(const std::string&)>;

  static constexpr std::string_view kProxyIdentifier = "com.ostravel.proxy-sidecar";

  // warn takes one sentence for people about anything that restricts what can be found, on the
  // thread that uses this object. proxyUsers: those besides root and system users whose local proxy
  // may carry everybody's flows.
  ApplicationIdentifierSource(
      std::uint16_t proxyPort, Warn warn,
      const std::string& registrationsFolder = ApplicationRegistrations::kDefaultFolder,
      const std::vector<uid_t>& proxyUsers = {});
  ApplicationIdentifierSource(const ApplicationIdentifierSource&) = delete;
  ApplicationIdentifierSource& operator=(const ApplicationIdentifierSource&) = delete;
  ~ApplicationIdentifierSource();

  // outputInterface is the number of the interface that the flow's first packet leaves through; 0
  // when that is not known.
  Identification identify(const FlowTuple& flow, std::uint32_t outputInterface);

  // Looks who listens on the proxy's port though nothing is sent, so that a new proxy has passed
  // its trial before the first flow. To be called now and then; returns a sentence for people when
  // everybody's flows may be sent to a proxy that was not there before.
  std::optional<std::string> watchProxy();

  // For what is identified from now on, also of processes that are known already.
  void replaceRegistrations(ApplicationRegistrations registrations);

 private:
  // A process that has sent before, and what was found out about it.
  struct KnownProcess {
    Process process;
    std::optional<std::string> identifier;
    // The last listener of the proxy that this process was compared with, and the result.
    std::uint64_t comparedListener = 0;
    bool isProxy = false;
  };
  using Source = std::function<std::optional<std::string>(const Process&)>;

  // Whether the flow's socket is bound to an interface. A relay's connection would not be: it would
  // take another way than the one that the application insists on.
  bool isBound(const FlowTuple& flow, const SocketDiagnostics::Answer& answer);
  // Null when the process cannot be found. Valid until the next call.
  KnownProcess* senderOf(const SocketInformation& socket);
  KnownProcess* knownProcess(pid_t pid);
  bool isProxy(KnownProcess& sender) const;
  // Whether the sender, null if it is not found, could be what dials out for the proxy.
  bool mayDialForProxy(const KnownProcess* sender) const;
  // For a socket whose process is not found.
  bool mayBeProxys(const SocketInformation& socket) const;
  std::string identifierOf(const Process& process) const;

  const Warn warn_;
  // Null when the kernel does not tell; then every flow is left to the system.
  std::unique_ptr<SocketDiagnostics> diagnostics_;
  // Null when connects cannot be traced; then processes are looked up in /proc.
  std::unique_ptr<ConnectTracer> tracer_;
  ProcessTable processes_;
  std::optional<ProxyProcess> proxy_;
  // There is one when there are diagnostics, like the last.
  std::optional<ProxyTrust> trust_;
  std::chrono::steady_clock::time_point nextWatch_;
  std::chrono::milliseconds watchPause_{};
  ApplicationRegistrations registrations_;
  const std::vector<Source> sources_;
  std::unordered_map<pid_t, KnownProcess> known_;
  // The latest flows of bound sockets.
  std::deque<FlowTuple> boundFlows_;
};

}  // namespace ostravel::linuxplatform
