#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/NetworkSettings.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Kernel/NetfilterBatch.h"
#include "Platform/Linux/Kernel/PacketMarks.h"

namespace ostravel::linuxplatform {

// The one nf_tables table that this system adds to its network namespace, translated from the
// provider's network settings. Owned by the netlink socket that made it: the kernel removes every
// rule when the object or the process ends, however that happens, and lets nobody else change it.
//
//   table inet ostravel
//     set alive      {tcp, udp} with a time-out: without it no packet is offered
//     set rates      users and how many packets of theirs were queued lately
//     chain offer    output, before everything of the filter: first packets that the settings
//                    select go on to the next chain
//     chain queue    packets go to the queue, and pass when nobody listens there or their user
//                    exceeds kPacketsPerSecond
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

  // First packets that are queued of one user: more than connections can be made per second, and
  // few enough that the verdict thread has time for the other users.
  static constexpr std::uint32_t kPacketsPerSecond = 10'000;

  // Where event loop i accepts: the ports of its listeners, 0 when it has none of that family.
  struct ListenerPorts {
    std::uint16_t ipv4 = 0;
    std::uint16_t ipv6 = 0;
  };

  // On failure the error's sentence says what is missing and what to do, and nothing is left
  // behind.
  static platform::Result<std::unique_ptr<InterceptionTable>> install(
      const platform::TransparentProxyNetworkSettings& settings, const PacketMarks& marks,
      std::uint16_t queueNumber, const std::vector<ListenerPorts>& listeners);

  // Lets packets be offered for another kAliveTimeout.
  platform::OptionalError refreshAlive();

 private:
  explicit InterceptionTable(NetlinkSocket socket) : socket_(std::move(socket)) {}

  NetlinkSocket socket_;
};

}  // namespace ostravel::linuxplatform
