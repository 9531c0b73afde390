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
#include "Platform/Linux/Interception/TranslationTable.h"
#include "Platform/Linux/Kernel/NetfilterBatch.h"
#include "Platform/Linux/Kernel/PacketMarks.h"

namespace ostravel::linuxplatform {

// The one nf_tables table that this system adds to its network namespace, built from the provider's
// network settings. It is owned by the netlink socket that created it: the kernel removes every
// rule when the object is destroyed or the process ends for any reason, and lets no other process
// change it.
//
//   table inet ostravel
//     set alive      {tcp, udp} with a time-out: without its elements no packet is offered
//     set rates      users, with the rate of their queued packets
//     chain offer    output, before or after the filters of other programs: first packets that
//                    the settings select jump to the next chain, packets marked as refused to
//                    refuse
//     chain hold     queues packets; they pass when nobody reads the queue or their user
//                    exceeds kPacketsPerSecond
//     chain refuse   first packets get a reset or port unreachable
//     chain divert   nat output: SYNs that carry one of our marks jump to the next chain
//     chain deliver  sends packets marked for event loop i to that loop's listener
//
// Every chain acts only on first packets that the settings select, so a mark that another program
// sets for its own purposes has no effect on other packets. Never offered: packets that already
// have any of our mark bits set, retransmissions of a SYN that has left, link-local or multicast
// destinations, and, after the filters, packets whose destination another program has translated.
//
// Used by one thread at a time.
class InterceptionTable {
 public:
  static constexpr const char* kName = "ostravel";
  // How long packets continue to be offered without a refresh.
  static constexpr std::chrono::milliseconds kAliveTimeout{1000};

  // Limit on a user's queued first packets per second: above any real rate of new connections, and
  // low enough to leave time for other users.
  static constexpr std::uint32_t kPacketsPerSecond = 10'000;

  // Where packets are offered.
  enum class OfferPoint {
    // Accepting a packet with a mark redirects it. Other programs' filter rules about the
    // application, for example about its user, then see the packet on its way to our listener.
    beforeFilters,
    // Packets that a filter has dropped or rejected are not offered. It is too late to redirect the
    // packet, so a copy must be sent; see PacketResender.
    afterFilters,
  };

  // The ports of an event loop's listeners; 0 if it has none for that family.
  struct ListenerPorts {
    std::uint16_t ipv4 = 0;
    std::uint16_t ipv6 = 0;
  };

  // On failure nothing stays installed, and the error's sentence says what is missing and what to
  // do.
  static platform::Result<std::unique_ptr<InterceptionTable>> install(
      const platform::TransparentProxyNetworkSettings& settings, const PacketMarks& marks,
      std::uint16_t queueNumber, const std::vector<ListenerPorts>& listeners,
      OfferPoint offerPoint = OfferPoint::beforeFilters,
      std::uint32_t packetsPerSecond = kPacketsPerSecond);

  // Asks the kernel whether it would install such a table, without changing anything. Errors as
  // above.
  static platform::OptionalError examine(const platform::TransparentProxyNetworkSettings& settings,
                                         const PacketMarks& marks, std::uint16_t queueNumber,
                                         const std::vector<ListenerPorts>& listeners);

  // Such a table as a script for nft(8), one command per line, with packets offered after the
  // filters. Needs no permission.
  static platform::Result<std::string> script(
      const platform::TransparentProxyNetworkSettings& settings, const PacketMarks& marks,
      std::uint16_t queueNumber, const std::vector<ListenerPorts>& listeners);

  // Lets packets be offered for another kAliveTimeout.
  platform::OptionalError refreshAlive();

  // Moves the offer there from before the filters, at once for all packets.
  platform::OptionalError offerAfterFilters();

  // To be removed after the rules of this table.
  void keep(std::unique_ptr<TranslationTable> translation) {
    translation_ = std::move(translation);
  }
  // Null if none is kept.
  TranslationTable* translation() { return translation_.get(); }

 private:
  InterceptionTable(NetlinkSocket socket, const platform::TransparentProxyNetworkSettings& settings,
                    const PacketMarks& marks)
      : settings_(settings), marks_(marks), socket_(std::move(socket)) {}

  const platform::TransparentProxyNetworkSettings settings_;
  const PacketMarks marks_;
  std::unique_ptr<TranslationTable> translation_;
  NetlinkSocket socket_;
};

}  // namespace ostravel::linuxplatform
