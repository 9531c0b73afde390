#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Platform/Interface/Result.h"

namespace ostravel::linuxplatform {

// Sends a copy of a queued SYN with another mark, so that it passes all rules for outgoing packets
// again (raw(7)). A packet that is merely accepted continues after the rules that it has already
// passed, which is too late to redirect it. Usable from any thread.
class PacketResender {
 public:
  // For the network namespace of this thread. Needs CAP_NET_RAW, but only here.
  static platform::Result<std::shared_ptr<const PacketResender>> open();

  // packet: starts with the network header; may be truncated after the headers. Does not block;
  // false if it was not sent.
  bool resend(std::span<const std::byte> packet, std::uint32_t mark) const;

  // The packet without its payload. A SYN need not carry data (RFC 9293, section 3.4): data that is
  // not acknowledged is sent again. Empty if the packet has incomplete headers, or data after IPv6
  // extension headers.
  static std::optional<std::vector<std::byte>> withoutData(std::span<const std::byte> packet);

 private:
  PacketResender(FileDescriptor ipv4, FileDescriptor ipv6)
      : ipv4_(std::move(ipv4)), ipv6_(std::move(ipv6)) {}

  const FileDescriptor ipv4_;
  // Not open if the network namespace has no IPv6.
  const FileDescriptor ipv6_;
};

}  // namespace ostravel::linuxplatform
