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

#include "Platform/Linux/Identity/ApplicationDescription.h"
#include "Platform/Linux/Identity/ApplicationNames.h"
#include "Platform/Linux/Identity/ApplicationRegistrations.h"
#include "Platform/Linux/Identity/Identification.h"
#include "Platform/Linux/Identity/ProxyInstance.h"
#include "Platform/Linux/Identity/ProxyProcess.h"
#include "Platform/Linux/Identity/ProxyTrust.h"
#include "Platform/Linux/Identity/ScriptNames.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Linux/Kernel/PacketParser.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Platform/Linux/Processes/KnownProcesses.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Platform/Linux/Processes/ProcessTable.h"
#include "Platform/Linux/Tracing/ConnectPublisher.h"
#include "Platform/Linux/Tracing/ConnectTracer.h"

namespace ostravel::linuxplatform {

// Identifies the application that sends a flow: finds its socket, the process that holds it, and
// that process's identifier, in this order:
//
//   1. kProxyIdentifier for the local proxy, whatever its program;
//   2. the administrator's registrations;
//   3. the name of its desktop application, sandbox, service or container; see ApplicationNames;
//   4. the path of its script; see ScriptNames;
//   5. the absolute path of the executable.
//
// The core exempts flows by identifier. No process can give itself an exempt one: 1 and 2 do not
// depend on anything that a process claims, 3 is never an exempt or a registered one, and 4 and 5
// always begin with "/". Nor can it acquire another user's identifier: 2 and 5 use the file that
// the process was running when it connected, and only if every process finds that file at that
// path; 2 also requires that the registration applies to the users of both the process and the
// socket, which may have been handed over; 3 believes a user only about this user's own processes.
// In doubt there is no identifier.
//
// For nearly every TCP flow, the kernel has published the sender in memory, and no system call is
// needed; see ConnectTable. All other flows are looked up with system calls, with the same result.
//
// Created by the interceptor, then used on its event loop only, in the network namespace in which
// it was created. Does bounded work: tens of microseconds for nearly every flow, and searches and
// waits within SearchAllowance.
class ApplicationIdentifierSource {
 public:
  using Warn = std::function<void(const std::string&)>;

  static constexpr std::string_view kProxyIdentifier = "com.ostravel.proxy-sidecar";

  // warn receives one sentence about anything that limits identification, on the thread that uses
  // this object. proxyUsers: users, besides root and system users, whose local proxy may carry the
  // flows of all users. marks: if present, sockets that the proxy connects are marked as own() once
  // its process is known. reserved: identifiers that only registrations assign. processes:
  // how processes are inspected.
  ApplicationIdentifierSource(
      std::uint16_t proxyPort, Warn warn,
      const std::string& registrationsFolder = ApplicationRegistrations::kDefaultFolder,
      const std::vector<uid_t>& proxyUsers = {},
      ConnectTracer::Detail traced = ConnectTracer::Detail::programs,
      std::optional<PacketMarks> marks = std::nullopt, std::vector<std::string> reserved = {},
      ProcessTableSource processes = &LocalProcessTable::make);
  ApplicationIdentifierSource(const ApplicationIdentifierSource&) = delete;
  ApplicationIdentifierSource& operator=(const ApplicationIdentifierSource&) = delete;
  ~ApplicationIdentifierSource();

  // outputInterface: the index of the interface through which the flow's first packet leaves; 0 if
  // unknown.
  Identification identify(const FirstPacket& first, std::uint32_t outputInterface);

  // A second object for another thread. It shares the records of connects and assigns the same
  // identifiers, but does not know the proxy: only applicationOf() and replaceRegistrations() may
  // be called.
  std::unique_ptr<ApplicationIdentifierSource> forAnotherThread() const;

  // The identifier of the application whose socket sends such packets; empty unless it is known for
  // certain. Does not know the local proxy. Costs system calls.
  std::string applicationOf(const FlowTuple& sent, std::uint32_t outputInterface);

  // Checks which process listens on the proxy's port even while nothing is sent, so that a new
  // proxy has passed its trial before the first flow. Call it periodically; returns a sentence when
  // the flows of all users may be sent to a new proxy.
  std::optional<std::string> watchProxy();

  // The display name of the proxy that all users' flows may be sent to; empty for none. As of the
  // last call of watchProxy().
  const std::string& servingProxy() const { return servingProxy_; }
  // Why that is the proxy, or why there is none: a part of a sentence for people.
  const std::string& proxyReason() const { return proxyReason_; }

  // The number of registrations in effect.
  std::size_t registrationCount() const { return registrations_.size(); }
  // How many processes are known that have sent recently.
  std::size_t knownProcessCount() const { return known_.size(); }

  // How a flow would be identified that this process sends now. Empty if there is no such process.
  // May search /proc for it.
  std::optional<ApplicationDescription> describe(pid_t process);
  // The same for a process of root that runs this executable.
  ApplicationDescription describe(const std::string& executable) const;

  // See ConnectPublisher.
  bool presetsOwnSockets() const { return publisher_ && publisher_->presetsOwnSockets(); }

  // Applies to later identifications, also of processes that are already known.
  void replaceRegistrations(ApplicationRegistrations registrations);

 private:
  struct Sender {
    // Null unless it is known for certain. Valid until the next search for a sender.
    KnownProcess* process = nullptr;
    // The owner of the socket; empty if there is no such socket.
    std::optional<uid_t> user = std::nullopt;
    // The cookie of the socket; 0 if there is none.
    std::uint64_t cookie = 0;
    std::uint64_t group = 0;
    // No process holds the socket any more.
    bool hasNoHolder = false;
    // Present if the flow must be left to the system, regardless of its sender.
    std::optional<LeaveReason> leaveReason = std::nullopt;
  };

  ApplicationIdentifierSource(std::shared_ptr<ConnectTracer> tracer,
                              ApplicationRegistrations registrations,
                              std::vector<std::string> reserved,
                              std::shared_ptr<const ScriptNames> scripts,
                              ProcessTableSource processes);

  void startTracing(std::uint16_t proxyPort, ConnectTracer::Detail wanted,
                    std::optional<PacketMarks> marks);
  // True if the flow's socket is bound to an interface. A relay's connection would not be bound,
  // and would ignore the route that the application insists on.
  bool isBound(const FlowTuple& flow, const std::optional<SocketInformation>& socket);
  // The sender that the kernel has published; makes no system call if its process is known.
  Sender publishedSender(const FirstPacket& first);
  Sender lookUpSender(const FlowTuple& flow, std::uint32_t outputInterface);
  Sender senderOf(const SocketInformation& socket);
  // The process as it was when it connected; null if it has changed since, or ended before it was
  // examined. place: as in PublishedConnect.
  KnownProcess* tracedSender(const ConnectRecord& record, std::uint64_t place);
  // The process in its current state.
  KnownProcess* holder(pid_t pid);
  // Updates what is known about the process's executable, which is at this place.
  void refresh(KnownProcess& known, std::optional<FileIdentity> executable, std::uint64_t place);
  // Empty if that is not known.
  std::optional<bool> isProxy(KnownProcess& sender) const;
  // Records that the process has sent on a socket that was created in this control group.
  void noteGroup(KnownProcess& sender, std::uint64_t group) const;
  // These names never equal an identifier that only registrations assign.
  ApplicationNames makeNames() const;
  // For a process of the local proxy that has connected this socket.
  void markFurtherSockets(KnownProcess& sender, std::uint64_t cookie) const;
  // True if the sender, or an unknown sender (null), could be the process that dials out for the
  // proxy.
  bool mayDialForProxy(const KnownProcess* sender) const;
  // For a socket whose process was not found.
  bool mayBelongToProxy(const Sender& sender) const;
  std::string identifierOf(KnownProcess& sender, uid_t socketUser) const;
  std::string findIdentifier(const Process& process, uid_t socketUser) const;

  const Warn warn_;
  const std::vector<std::string> reserved_;
  const SystemUsers systemUsers_ = SystemUsers::read();
  // Null if the kernel does not support it; then every flow is left to the system.
  std::unique_ptr<SocketDiagnostics> diagnostics_;
  // Null if connects cannot be traced; then processes are looked up in /proc.
  std::shared_ptr<ConnectTracer> tracer_;
  // Null if senders cannot be published; then they are looked up.
  std::shared_ptr<const ConnectPublisher> publisher_;
  const ProcessTableSource makeProcesses_;
  const std::unique_ptr<ProcessTable> processes_;
  std::optional<ProxyProcess> proxy_;
  // Present if there are diagnostics, as are proxy_ and proxyPort_.
  std::optional<ProxyTrust> trust_;
  std::shared_ptr<ProxyInstance::Port> proxyPort_;
  std::chrono::steady_clock::time_point nextWatch_;
  std::chrono::milliseconds watchPause_{};
  std::string servingProxy_;
  std::string proxyReason_ = "sockets cannot be examined, so no proxy can be recognised";
  ApplicationRegistrations registrations_;
  ApplicationNames names_;
  // Null if scripts are not traced.
  std::shared_ptr<const ScriptNames> scripts_;
  KnownProcesses known_;
  // The latest flows of bound sockets.
  std::deque<FlowTuple> boundFlows_;
};

}  // namespace ostravel::linuxplatform
