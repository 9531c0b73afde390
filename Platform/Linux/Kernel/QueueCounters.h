#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ostravel::linuxplatform {

// The kernel's counters of one netfilter queue of this network namespace
// (/proc/net/netfilter/nfnetlink_queue; format as printed by nfnetlink_queue.c of Linux).
struct QueueCounters {
  // Packets in the queue; packets that found the queue full; packets that could not be sent to its
  // reader.
  std::uint64_t waiting = 0;
  std::uint64_t dropped = 0;
  std::uint64_t userDropped = 0;

  // Empty if there is no such queue.
  static std::optional<QueueCounters> read(std::uint16_t queue);
  // text: the file's content.
  static std::optional<QueueCounters> parse(std::string_view text, std::uint16_t queue);
};

}  // namespace ostravel::linuxplatform
