#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/NetworkSettings.h"
#include "Platform/Linux/Kernel/NetfilterBatch.h"
#include "Platform/Linux/Kernel/PacketMarks.h"

namespace ostravel::linuxplatform {

// The one nf_tables table that this system adds to its network namespace, translated from the
// provider's network settings. Owned by the netlink socket that made it: the kernel removes every
// rule when the object or the process ends, however that happens, and lets nobody else change it.
//
//   table inet ostravel
//     set alive      {tcp, udp} with a time-out: without it no packet is offered
//     chain offer    output, before everything of the filter: first packets that the settings
//                    select go to the queue; packets pass when nobody listens there
//     chain refuse   output, right behind: packets marked as refused get a reset or port
//                    unreachable
//     chain divert   nat output: SYNs with a mark of ours go through
//     chain redirect where those that are marked for event loop i are sent to its listener
//
// No chain acts on anything but first packets that the settings select, so that a mark that another
// program sets for purposes of its own has no effect elsewhere. Never offered: packets that bear a
// mark of our bits already, repetitions of a SYN that has left, and destinations on a link or of a
// group.
//
// Used by one thread at a time.
class InterceptionTable {
 public:
  static constexpr const char* kName = "ostravel";
  // How long packets go on being offered when nobody refreshes.
  static constexpr std::chrono::milliseconds kAliveTimeout{1000};

  // Where event loop i accepts: the ports of its listeners, 0 when it has none of that family.
  struct ListenerPorts {
    std::uint16_t ipv4 = 0;
    std::uint16_t ipv6 = 0;
  };

  // On failure the error's sentence says what is missing and what to do, and nothing is left
  // behind.
  static std::variant<std::unique_ptr<InterceptionTable>, platform::Error> install(
      const platform::TransparentProxyNetworkSettings& settings, const PacketMarks& marks,
      std::uint16_t queueNumber, const std::vector<ListenerPorts>& listeners);

  // Lets packets be offered for another kAliveTimeout.
  platform::OptionalError refreshAlive();

  // Whether the kernel lacked the native queue expression and the older target is used.
  bool usesCompatibilityTarget() const { return usesCompatibilityTarget_; }

 private:
  InterceptionTable(NetlinkSocket socket, bool usesCompatibilityTarget);

  NetlinkSocket socket_;
  bool usesCompatibilityTarget_;
};

}  // namespace ostravel::linuxplatform
