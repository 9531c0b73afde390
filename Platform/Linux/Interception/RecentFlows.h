#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <unordered_map>

#include "Platform/Linux/Kernel/PacketParser.h"

namespace ostravel::linuxplatform {

// Flows that have already been decided, so that another packet of the same attempt (a retransmitted
// SYN, a second datagram before the reply) is not mistaken for a new flow. Bounded: the oldest
// entries are dropped first. Not thread-safe.
class RecentFlows {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  explicit RecentFlows(std::size_t capacity) : capacity_(capacity) {}

  void remember(const FirstPacket& packet, TimePoint now);
  bool contains(const FirstPacket& packet, TimePoint now) const;
  std::size_t size() const { return expiries_.size(); }

 private:
  struct Hash {
    std::size_t operator()(const FirstPacket& packet) const noexcept;
  };
  struct Entry {
    FirstPacket packet;
    TimePoint expiry;
  };

  const std::size_t capacity_;
  std::unordered_map<FirstPacket, TimePoint, Hash> expiries_;
  std::deque<Entry> inOrder_;
};

}  // namespace ostravel::linuxplatform
