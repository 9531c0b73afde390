#pragma once

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <memory>
#include <optional>

#include "Platform/Linux/Interception/QueuedPacket.h"
#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform {

// First packets awaiting a verdict, oldest first. Used by the verdict thread only; the verdicts are
// given elsewhere.
class HeldFlows {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // One second longer than a handshake may take: a verdict that is later than that never comes.
  static constexpr std::chrono::seconds kLongestHold{6};

  // process: the sender, if known.
  void add(const std::shared_ptr<QueuedPacket::State>& packet, const FlowTuple& tuple,
           std::optional<pid_t> process, TimePoint now);

  // True if a packet of another process to the same destination is held.
  bool isOtherHeldFor(const SocketEndpoint& destination, std::optional<pid_t> process) const;

  // True if the process appears to forward the requests that it receives from us: two of its
  // packets to this destination are held, and one of another process is as well. This is what a
  // proxy looks like that has started to hand its requests to another program.
  bool isLoopLikely(const SocketEndpoint& destination, std::optional<pid_t> process) const;

  // Releases packets that have been held for too long; returns how many there were.
  std::size_t releaseOld(TimePoint now);
  void releaseAll();

  std::size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    std::weak_ptr<QueuedPacket::State> packet;
    SocketEndpoint destination;
    std::optional<pid_t> process;
    TimePoint since;
  };

  static bool isHeldFor(const Entry& entry, const SocketEndpoint& destination);
  void forgetDecided();

  // Decided entries are removed only at the front; others stay until they get there.
  std::deque<Entry> entries_;
};

}  // namespace ostravel::linuxplatform
