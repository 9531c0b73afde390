#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Interface/AppProxyFlow.h"
#include "Platform/Interface/Error.h"
#include "Platform/Interface/Log.h"
#include "Platform/Interface/NetworkSettings.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Identity/ApplicationIdentifierSource.h"
#include "Platform/Linux/Interception/AliveKeeper.h"
#include "Platform/Linux/Interception/CountedDatagrams.h"
#include "Platform/Linux/Interception/HeldFlows.h"
#include "Platform/Linux/Interception/LeftFlows.h"
#include "Platform/Linux/Interception/RecentFlows.h"
#include "Platform/Linux/Interception/RedirectSupervisor.h"
#include "Platform/Linux/Interception/RuleInstaller.h"
#include "Platform/Linux/Kernel/PacketParser.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Platform/Linux/Kernel/PacketResender.h"
#include "Platform/Linux/Liveness/Heartbeat.h"
#include "Platform/Linux/Names/HostNameObserver.h"
#include "Platform/Linux/Names/NameUse.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Relay/FlowName.h"
#include "Platform/Linux/Relay/HeldPacket.h"
#include "Platform/Linux/Relay/LoopSocket.h"
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Platform/Linux/Services/UserShares.h"
#include "Platform/Linux/Statistics/FlowJournal.h"

namespace ostravel::linuxplatform {

// Kernel interception for the lifetime of the object: receives the first packet of every flow that
// the network settings select, identifies its application, and offers the flow. A flow that is not
// taken is accepted unchanged: the kernel carries it, and none of its data enters this process.
//
// Everything happens on the group's first event loop, so that the packets and bytes of this loop's
// flows stay on one thread. A packet costs bounded work, and the loop's other work runs between two
// bursts of packets. On any failure flows are left to the system, and so are the flows of a user
// who exceeds the share of pending flows. Started and stopped by the provider's context, on other
// threads; the loop outlives it.
class Interceptor {
 public:
  // Returns true if the flow was taken. Called on the loop.
  using FlowHandler = std::function<bool(std::shared_ptr<platform::AppProxyFlow>)>;

  using ProxyWatcher = std::function<void(const std::string& proxy, const std::string& reason)>;

  // What interception uses of its process; all of it outlives the interceptor.
  struct Environment {
    EventLoopGroup& loops;
    DescriptorBudget& descriptors;
    // Its beats keep the rules alive, and packets are not held for longer than it allows.
    Heartbeat& heartbeat;
    // Records the decisions, on the first event loop.
    FlowJournal& journal;
    // Called about four times a second while the rules are in effect; may be empty.
    std::function<void()> onAlive;
    // Users, besides root and system users, whose local proxy may carry the flows of all users.
    std::vector<uid_t> proxyUsers;
    // If absent, packets are always offered before the filters of other programs.
    std::shared_ptr<const PacketResender> resender = nullptr;
    // Identifiers that applications get from registrations only.
    std::vector<std::string> reservedIdentifiers = {};
    // Called several times a second, on the first event loop, with the display name of the proxy
    // that all users' flows may be sent to, empty for none, and the reason. May be absent.
    ProxyWatcher onProxyWatched = {};
    NameUse names = NameUse::off;
    // Shared with the guardian, see TranslationTable; null if there is no guardian.
    std::shared_ptr<mnl_socket> guardedSocket = nullptr;
    // How processes are inspected.
    ProcessTableSource processes = &LocalProcessTable::make;
  };

  // On failure nothing stays installed, and the error's sentence says what is missing and what to
  // do.
  static platform::Result<std::unique_ptr<Interceptor>> start(
      const platform::TransparentProxyNetworkSettings& settings, std::shared_ptr<platform::Log> log,
      const Environment& environment, FlowHandler handler);

  Interceptor(const Interceptor&) = delete;
  Interceptor& operator=(const Interceptor&) = delete;
  // Removes the rules and accepts every packet that is still held.
  ~Interceptor();

  // Reads the applications' registrations again and logs the result; if any of them is invalid, the
  // current ones stay in use, and false is returned. Called from any thread but the loop's, which
  // does no disk access.
  bool reloadRegistrations();

  // State that only the loop can read, for status requests.
  struct Inspection {
    // The number of the netfilter queue, and of the packets held in it.
    std::uint16_t queue = 0;
    std::size_t held = 0;
    std::size_t registrations = 0;
    // Processes whose identifier is known, and names; the latter empty if they are not observed.
    std::size_t processes = 0;
    std::optional<std::size_t> names = std::nullopt;
    // The requested application; empty if there is no such process, or none was requested.
    std::optional<ApplicationDescription> application = std::nullopt;
  };
  // Describes the application of a process or an executable, if either is given. The loop provides
  // the result, even if the interceptor is destroyed before.
  std::future<Inspection> inspect(std::optional<pid_t> process,
                                  std::optional<std::string> executable);

 private:
  struct Parts;
  explicit Interceptor(Parts parts);

  // On the loop.
  void waitForPackets();
  void receive();
  bool canQueueBeUsed();
  void maintain();
  void stopReceiving();

  void decide(const PacketQueue::Packet& packet);
  // Accepts the packet and its retransmissions by TCP. sender: if it has been identified.
  void leaveToSystem(const PacketQueue::Packet& packet, const FirstPacket& first,
                     LeaveReason reason, FlowRecord::Clock::time_point begin,
                     std::optional<Identification> sender);
  // Empty if the flow may be offered, judging only by what is known before identification.
  std::optional<LeaveReason> reasonToLeave(const FlowTuple& tuple,
                                           const PacketQueue::Packet& packet, UserShare& share,
                                           UserShare::Clock::time_point now) const;
  std::optional<LeaveReason> reasonToLeave(const FlowTuple& tuple,
                                           const Identification& identification) const;
  std::shared_ptr<platform::AppProxyFlow> makeFlow(const FlowTuple& tuple,
                                                   Identification identification,
                                                   std::unique_ptr<HeldPacket> packet,
                                                   Reference<UserShare> share,
                                                   Reference<FlowRecord> record, EventLoop& loop);
  std::optional<FlowName> nameOf(const Identification& sender, const SocketEndpoint& destination);
  // For people; empty if unknown.
  std::string hostOf(std::optional<uid_t> user, std::string_view application,
                     const SocketEndpoint& destination) const;
  bool hasListenerFor(AddressFamily family) const;
  void acceptEverything();

  const std::shared_ptr<platform::Log> log_;
  EventLoopGroup& loops_;
  // Everything below is used on this loop unless stated otherwise.
  EventLoop& loop_;
  DescriptorBudget& descriptors_;
  FlowJournal& journal_;
  const FlowHandler handler_;
  const ProxyWatcher onProxyWatched_;
  const ProcessTableSource makeProcesses_;
  const std::unique_ptr<ApplicationIdentifierSource> identifiers_;
  const NameUse nameUse_;
  // Null if names are not used or cannot be observed.
  const std::shared_ptr<HostNameObserver> names_;
  const std::shared_ptr<PacketQueue> queue_;
  const std::shared_ptr<const PacketResender> resender_;
  const std::shared_ptr<RuleInstaller> rules_;
  // A duplicate of the queue's socket, for waiting.
  LoopSocket arrivals_;
  bool isReceivingPaused_ = false;
  // For the packets that were received together: the answer to an application's query was copied
  // before the application could send its first packet.
  bool areNamesRead_ = false;
  bool hasQueueFailed_ = false;
  RecentFlows recentFlows_;
  CountedDatagrams countedDatagrams_;
  HeldFlows heldFlows_;
  UserShares shares_;
  LeftFlows leftFlows_;
  const std::shared_ptr<RedirectSupervisor> redirects_;
  unsigned nextLoop_ = 0;
  // Used by the threads that start and stop the interception.
  std::unique_ptr<AliveKeeper> aliveKeeper_;
  std::optional<Heartbeat::Membership> membership_;
};

}  // namespace ostravel::linuxplatform
