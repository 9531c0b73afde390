#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

#include "Platform/Interface/SystemLimits.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Platform/Linux/Services/UserShare.h"

namespace ostravel::linuxplatform {

// First packets awaiting a verdict, oldest first. Not thread-safe, but the verdicts may be given on
// any thread.
class HeldFlows {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // One second longer than a handshake may take: a verdict that is later than that never comes.
  static constexpr auto kLongestHold =
      platform::limits::kHandshakeTimeout + std::chrono::seconds(1);

  // queue: holds the packets; outlives this object.
  explicit HeldFlows(PacketQueue& queue) : queue_(queue) {}

  struct Flow {
    // The packet's id in the queue.
    std::uint32_t packet = 0;
    SocketEndpoint destination;
    // The sender, if known.
    std::optional<pid_t> process;
    // Charged with the packet.
    Reference<UserShare> user;
  };
  void add(Flow flow, TimePoint now);

  // True if a packet of another process to the same destination is held.
  bool isOtherHeldFor(const SocketEndpoint& destination, std::optional<pid_t> process) const;

  // True if the process appears to forward the requests that it receives from us: two of its
  // packets to this destination are held, and one of another process is as well. This is what a
  // proxy looks like that has started to hand its requests to another program.
  bool isLoopLikely(const SocketEndpoint& destination, std::optional<pid_t> process) const;

  // Releases packets that have been held for too long; returns how many there were.
  std::size_t releaseOld(TimePoint now);

  std::size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    Flow flow;
    TimePoint since;
  };

  bool isHeldFor(const Flow& flow, const SocketEndpoint& destination) const;
  void forgetDecided();

  PacketQueue& queue_;
  // Decided entries are removed only at the front; others stay until they get there.
  std::deque<Entry> entries_;
};

}  // namespace ostravel::linuxplatform
