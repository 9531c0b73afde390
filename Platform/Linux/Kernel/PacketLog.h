#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "Platform/Interface/Result.h"
#include "Platform/Linux/Kernel/NetfilterBatch.h"

struct nlmsghdr;

namespace ostravel::linuxplatform {

// Receives copies of the packets that rules with NetfilterRule::log send to a group
// (nfnetlink_log). The packets themselves are not delayed; copies that are not read in time are
// lost. Used by one thread at a time.
class PacketLog {
 public:
  struct Packet {
    // True if a socket of this machine sent it; otherwise it has arrived for one.
    bool isOutgoing = false;
    // The user who created the sending socket; empty if unknown, and for arriving packets.
    std::optional<uid_t> uid;
    // The interface through which an outgoing packet leaves; 0 if unknown.
    std::uint32_t outputInterface = 0;
    // From the network header on, the first kCopiedBytes.
    std::span<const std::byte> bytes;
  };

  static constexpr std::uint32_t kCopiedBytes = 8192;

  // Takes the first free group from a fixed range.
  static platform::Result<std::unique_ptr<PacketLog>> open();
  PacketLog(const PacketLog&) = delete;
  PacketLog& operator=(const PacketLog&) = delete;
  ~PacketLog();

  std::uint16_t group() const { return group_; }
  int descriptor() const;

  // Passes one message's packets to the handler without blocking; false if there is no message.
  bool receive(const std::function<void(const Packet&)>& handler);

 private:
  PacketLog(NetlinkSocket socket, std::uint16_t group);
  static void deliver(const nlmsghdr* message, const std::function<void(const Packet&)>& handler);

  const NetlinkSocket socket_;
  const std::uint16_t group_;
  std::vector<char> buffer_;
};

}  // namespace ostravel::linuxplatform
