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
#include <vector>

#include "Platform/Linux/Identity/ApplicationRegistrations.h"
#include "Platform/Linux/Identity/Identification.h"
#include "Platform/Linux/Identity/ProxyProcess.h"
#include "Platform/Linux/Identity/ProxyTrust.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Platform/Linux/Processes/ConnectTracer.h"
#include "Platform/Linux/Processes/KnownProcesses.h"
#include "Platform/Linux/Processes/ProcessTable.h"

namespace ostravel::linuxplatform {

// Finds the application that sends a flow: its socket, the process of that, and what the process is
// called. In this order:
//
//   1. the local proxy, whichever program that is, is kProxyIdentifier;
//   2. the administrator's registrations;
//   3. the absolute path of the executable.
//
// The core exempts flows by identifier. No process can give itself such an identifier: 1 and 2 do
// not depend on what a process says, and 3 always begins with "/". Nor can it have the identifier
// of another one: 2 and 3 are about the file that the process was running when it connected, and
// only if that is the file at that path for everybody; 2 also takes one of the users that it is
// for, both for the process and for the socket, which may have been handed over. Doubt yields no
// identifier.
//
// Owned by the verdict thread's owner and used by that thread alone after it was made, in the
// network namespace in which it was made. Does bounded work only: tens of microseconds for nearly
// every flow, and searches and waits within SearchAllowance.
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
      const std::vector<uid_t>& proxyUsers = {},
      ConnectTracer::Detail traced = ConnectTracer::Detail::programs);
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
  struct Sender {
    // Null when it is not known for certain. Valid until the next sender is looked for.
    KnownProcess* process = nullptr;
    // It was not searched for.
    bool isSearchRefused = false;
  };

  // Whether the flow's socket is bound to an interface. A relay's connection would not be: it would
  // take another way than the one that the application insists on.
  bool isBound(const FlowTuple& flow, const SocketDiagnostics::Answer& answer);
  Sender senderOf(const SocketInformation& socket);
  // The process as it was when it connected; null when it is something else now, or has ended
  // before it was known.
  KnownProcess* tracedSender(const ConnectRecord& record);
  // The process as it is now.
  KnownProcess* holder(pid_t pid);
  // Notices what has become of the process's executable.
  void refresh(KnownProcess& known, std::optional<FileIdentity> executable);
  bool isProxy(KnownProcess& sender) const;
  // Whether the sender, null if it is not found, could be what dials out for the proxy.
  bool mayDialForProxy(const KnownProcess* sender) const;
  // For a socket whose process is not found.
  bool mayBelongToProxy(const SocketInformation& socket) const;
  const std::string& identifierOf(KnownProcess& sender, uid_t socketUser) const;
  std::string findIdentifier(const Process& process, uid_t socketUser) const;

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
  KnownProcesses known_;
  // The latest flows of bound sockets.
  std::deque<FlowTuple> boundFlows_;
};

}  // namespace ostravel::linuxplatform
