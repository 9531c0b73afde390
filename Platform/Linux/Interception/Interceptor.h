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
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Platform/Linux/Services/UserShares.h"

namespace ostravel::linuxplatform {

// Kernel interception as long as it exists: receives the first packet of every flow that the
// network settings select, finds out whose it is, and offers the flow. A flow that is not taken is
// accepted unchanged, so that the kernel carries it and nothing of it is ever in this process.
//
// The verdict thread does bounded work only and shares no lock with the event loops. Whatever goes
// wrong, flows are left to the system, and so are those of a user who has more of them on the way
// than its share. Started and stopped by the provider's context.
class Interceptor {
 public:
  // True: the flow has been taken. Called on the verdict thread.
  using FlowHandler = std::function<bool(std::shared_ptr<platform::AppProxyFlow>)>;

  // What interception uses of its process; all of it outlives the interceptor.
  struct Environment {
    EventLoopGroup& loops;
    DescriptorBudget& descriptors;
    // The verdict thread joins it, and it keeps the rules alive.
    Heartbeat& heartbeat;
    // Called about four times a second while the rules are alive; may be empty.
    std::function<void()> onAlive;
    // Those besides root and system users whose local proxy may carry everybody's flows.
    std::vector<uid_t> proxyUsers;
  };

  // On failure the error's sentence says what is missing and what to do, and nothing is left
  // behind.
  static platform::Result<std::unique_ptr<Interceptor>> start(
      const platform::TransparentProxyNetworkSettings& settings, std::shared_ptr<platform::Log> log,
      const Environment& environment, FlowHandler handler);

  Interceptor(const Interceptor&) = delete;
  Interceptor& operator=(const Interceptor&) = delete;
  // Removes the rules and accepts every packet that is still held.
  ~Interceptor();

  // Reads the applications' registrations again, and logs what became of it. When anything of them
  // is wrong, those that there were are kept. From any other thread: the verdict thread touches no
  // disk.
  void reloadRegistrations();

 private:
  struct Parts;
  explicit Interceptor(Parts parts);

  void run();
  void takeRegistrations();
  void receive();
  void tendHeldFlows();

  void decide(const PacketQueue::Packet& packet);
  // The packet goes on, and TCP's retransmissions of it as well.
  void leaveToSystem(const PacketQueue::Packet& packet, const FirstPacket& first,
                     LeaveReason reason);
  // Absent when the flow may be offered, as far as can be told without knowing whose it is.
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
  // What the verdict thread is to use from now on. Guarded by registrationsLock_.
  std::optional<ApplicationRegistrations> newRegistrations_;
  std::unique_ptr<AliveKeeper> aliveKeeper_;
  EventDescriptor ping_;
  // Until the thread has ended: a thread that does not end hangs as well.
  const Heartbeat::Membership membership_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
