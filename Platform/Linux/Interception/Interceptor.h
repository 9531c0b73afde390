#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "Platform/Interface/AppProxyFlow.h"
#include "Platform/Interface/Error.h"
#include "Platform/Interface/Log.h"
#include "Platform/Interface/NetworkSettings.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Identity/ApplicationIdentifierSource.h"
#include "Platform/Linux/Interception/AliveKeeper.h"
#include "Platform/Linux/Interception/HeldFlows.h"
#include "Platform/Linux/Interception/LeftFlows.h"
#include "Platform/Linux/Interception/RecentFlows.h"
#include "Platform/Linux/Interception/RedirectSupervisor.h"
#include "Platform/Linux/Kernel/EventDescriptor.h"
#include "Platform/Linux/Kernel/PacketParser.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Platform/Linux/Liveness/Heartbeat.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Relay/HeldPacket.h"
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Platform/Linux/Services/UserShares.h"

namespace ostravel::linuxplatform {

// Kernel interception for the lifetime of the object: receives the first packet of every flow that
// the network settings select, identifies its application, and offers the flow. A flow that is not
// taken is accepted unchanged: the kernel carries it, and none of its data enters this process.
//
// The verdict thread does bounded work only; the locks that it shares with the event loops are held
// only to copy a few words. On any failure flows are left to the system, and so are those of a user
// with more pending flows than its share. Started and stopped by the provider's context.
class Interceptor {
 public:
  // Returns true if the flow was taken. Called on the verdict thread.
  using FlowHandler = std::function<bool(std::shared_ptr<platform::AppProxyFlow>)>;

  // What interception uses from its process; all of it outlives the interceptor.
  struct Environment {
    EventLoopGroup& loops;
    DescriptorBudget& descriptors;
    // The verdict thread joins it, and its beats keep the rules alive.
    Heartbeat& heartbeat;
    // Called about four times a second while the rules are in effect; may be empty.
    std::function<void()> onAlive;
    // Users, besides root and system users, whose local proxy may carry everybody's flows.
    std::vector<uid_t> proxyUsers;
    // Called several times a second, on the verdict thread, with the proxy that everybody's flows
    // may be sent to, as people call it; empty for none. May be absent.
    std::function<void(const std::string&)> onProxyWatched = {};
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
  // current ones stay in use. Called from any other thread, because the verdict thread does no disk
  // access.
  void reloadRegistrations();

 private:
  struct Parts;
  explicit Interceptor(Parts parts);

  void run();
  void takeRegistrations();
  void receive();
  void maintainHeldFlows();

  void decide(const PacketQueue::Packet& packet);
  // Accepts the packet and its retransmissions by TCP.
  void leaveToSystem(const PacketQueue::Packet& packet, const FirstPacket& first,
                     LeaveReason reason);
  // Empty if the flow may be offered, judging only by what is known before identification.
  std::optional<LeaveReason> reasonToLeave(const FlowTuple& tuple,
                                           const PacketQueue::Packet& packet, UserShare& share,
                                           UserShare::Clock::time_point now) const;
  std::optional<LeaveReason> reasonToLeave(const FlowTuple& tuple,
                                           const Identification& identification) const;
  std::shared_ptr<platform::AppProxyFlow> makeFlow(const FlowTuple& tuple,
                                                   Identification identification,
                                                   std::unique_ptr<HeldPacket> packet,
                                                   std::shared_ptr<UserShare> share);
  bool hasListenerFor(AddressFamily family) const;
  void acceptEverything();

  const std::shared_ptr<platform::Log> log_;
  EventLoopGroup& loops_;
  DescriptorBudget& descriptors_;
  const FlowHandler handler_;
  const std::function<void(const std::string&)> onProxyWatched_;
  const std::unique_ptr<ApplicationIdentifierSource> identifiers_;
  const std::shared_ptr<PacketQueue> queue_;
  RecentFlows recentFlows_;
  HeldFlows heldFlows_;
  UserShares shares_;
  LeftFlows leftFlows_;
  const std::shared_ptr<RedirectSupervisor> redirects_;
  unsigned nextLoop_ = 0;
  EventDescriptor stop_;
  EventDescriptor registrationsChanged_;
  std::mutex registrationsLock_;
  // Replaces the verdict thread's registrations on its next turn. Guarded by registrationsLock_.
  std::optional<ApplicationRegistrations> newRegistrations_;
  std::unique_ptr<AliveKeeper> aliveKeeper_;
  EventDescriptor ping_;
  // Ends only when the thread has ended: a thread that does not end counts as hung.
  const Heartbeat::Membership membership_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
