#pragma once

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <memory>
#include <optional>

#include "Platform/Linux/Interception/QueuedPacket.h"
#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform {

// The first packets that wait for a verdict, oldest first. Used by the verdict thread only; the
// verdicts are given elsewhere.
class HeldFlows {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // A second longer than a handshake may take: a verdict that is not given by then never comes.
  static constexpr std::chrono::seconds kLongestHold{6};

  // process: the sender, if it is known.
  void add(const std::shared_ptr<QueuedPacket::State>& packet, const FlowTuple& tuple,
           std::optional<pid_t> process, TimePoint now);

  // Whether another process is being held on its way to the same destination.
  bool isOtherHeldFor(const SocketEndpoint& destination, std::optional<pid_t> process) const;

  // Whether the process seems to send on what it is asked for by way of us: it is being held twice
  // on its way to this destination, and somebody else is as well. A proxy that has begun to hand
  // its requests to another program looks like this.
  bool isLoopLikely(const SocketEndpoint& destination, std::optional<pid_t> process) const;

  // Lets those go that have been held for too long; how many there were.
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

  // Those in front are forgotten when they are decided; others stay until they are in front.
  std::deque<Entry> entries_;
};

}  // namespace ostravel::linuxplatform
