#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "Platform/Interface/Result.h"
#include "Platform/Linux/Kernel/NetfilterBatch.h"

namespace ostravel::linuxplatform {

// A second nf_tables table, which copies the DNS messages of this machine's sockets to a PacketLog.
// It decides about no packet. Like the interception table it is owned by its netlink socket, so it
// is removed with this object or the process.
//
//   table inet ostravel-names
//     set asking     the ports that queries were sent from within the last seconds
//     chain queries  output: to port 53, as the application sends them
//     chain answers  input, after all filters: from port 53, to the ports in the set
//
// The kernel copies a limited number per second: a flood costs names, not time. These rules need no
// connection tracking.
class DNSCopies {
 public:
  static constexpr const char* kTableName = "ostravel-names";
  // For each direction; enough for a browser that restores all its tabs.
  static constexpr std::uint32_t kPacketsPerSecond = 2000;

  // group: the PacketLog's. The error's sentence says what failed.
  static platform::Result<std::unique_ptr<DNSCopies>> install(std::uint16_t group);

  // Whether the kernel would take such a table; changes nothing. The error's code is EPERM or EBUSY
  // if another process has it.
  static platform::OptionalError examine(std::uint16_t group);

  // Such a table as a script for nft(8), one command per line.
  static std::string script(std::uint16_t group);

 private:
  explicit DNSCopies(NetlinkSocket socket) : socket_(std::move(socket)) {}

  const NetlinkSocket socket_;
};

}  // namespace ostravel::linuxplatform
