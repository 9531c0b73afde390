#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <ratio>
#include <vector>

#include "Platform/Linux/Kernel/PacketParser.h"

namespace ostravel::linuxplatform {

// Flows that have already been decided, so that another packet of the same attempt (a retransmitted
// SYN, a second datagram before the reply) is not mistaken for a new flow. Bounded: the oldest
// entries are dropped first. Not thread-safe.
//
// Keeps only a fingerprint of each packet, of 64 bits: no two of so few flows have the same.
class RecentFlows {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // At most kLargestCapacity.
  explicit RecentFlows(std::size_t capacity);

  static constexpr std::size_t kLargestCapacity = 65'000;

  void remember(const FirstPacket& packet, TimePoint now);
  bool contains(const FirstPacket& packet, TimePoint now) const;
  std::size_t size() const { return count_; }

 private:
  friend class RecentFlowsTestPeer;

  using Fingerprint = std::uint64_t;
  // Lasts for eight years.
  using Ticks = std::chrono::duration<std::uint32_t, std::ratio<1, 16>>;
  // Of an entry: they are numbered from 1 in the order of their arrival, and from 1 again after
  // kLastNumber.
  using Number = std::uint16_t;

  static constexpr Number kNoEntry = 0;
  static constexpr Number kLastNumber = std::numeric_limits<Number>::max();

  // In halves, so that it takes twelve bytes.
  struct Entry {
    std::uint32_t high;
    std::uint32_t low;
    Ticks expiry;

    Fingerprint fingerprint() const { return Fingerprint{high} << 32U | low; }
  };

  Fingerprint fingerprintOf(const FirstPacket& packet) const;
  Ticks ticksAt(TimePoint time) const;
  const Entry& entryOf(Number number) const;
  // Where the search for a flow starts.
  std::size_t homeOf(Fingerprint fingerprint) const { return fingerprint & (table_.size() - 1); }
  std::size_t next(std::size_t place) const { return (place + 1) & (table_.size() - 1); }
  // The place of this flow's number, or the free one where it belongs. The table is not empty.
  std::size_t find(Fingerprint fingerprint) const;
  void makeRoom();
  void forgetOldest();
  void erase(std::size_t place);

  const std::size_t capacity_;
  // Part of every fingerprint, so that no user can choose destinations whose places are close
  // together, which would slow down every search.
  const std::uint64_t secret_;
  // When the first flow was remembered.
  std::optional<TimePoint> start_;
  std::deque<Entry> inOrder_;
  // Of the oldest entry.
  Number first_ = 1;
  // A hash table with linear probing, of the number of each flow's latest entry. Its size is a
  // power of two, and a quarter of it is free.
  std::vector<Number> table_;
  std::size_t count_ = 0;
};

}  // namespace ostravel::linuxplatform
