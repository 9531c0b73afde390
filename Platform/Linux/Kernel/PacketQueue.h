#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <unordered_set>
#include <vector>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Kernel/NetfilterBatch.h"

namespace ostravel::linuxplatform {

// The netfilter queue on which first packets are offered and held (nfnetlink_queue). Every packet
// is held from receive() until its first verdict.
//
// Packets are received by one thread; verdicts may be given from any thread. When the queue is full
// the kernel lets packets pass without offering them. When the object is destroyed, the packets
// still held are dropped, which costs their senders one retransmission.
class PacketQueue {
 public:
  struct Packet {
    std::uint32_t id = 0;
    std::uint32_t mark = 0;
    // The user who created the sending socket. Empty if no program owns that socket, as with the
    // kernel's own packets. A packet that the kernel has wrapped for a tunnel still counts as sent
    // by the socket of its inner packet.
    std::optional<uid_t> uid;
    // The interface through which the packet leaves unless it is rerouted; 0 if unknown.
    std::uint32_t outputInterface = 0;
    // From the network header on, truncated to what the parser needs.
    std::span<const std::byte> bytes;
  };

  // Sends a message to the kernel; returns 0 or an errno, not an Error: it is called for every
  // packet, and the number only decides whether to retry.
  using Send = std::function<int(mnl_socket*, const nlmsghdr*)>;
  static int sendNow(mnl_socket* socket, const nlmsghdr* message);

  // Takes the first free queue number from a fixed range.
  static platform::Result<std::unique_ptr<PacketQueue>> open(Send send = &sendNow);
  PacketQueue(const PacketQueue&) = delete;
  PacketQueue& operator=(const PacketQueue&) = delete;
  ~PacketQueue();

  std::uint16_t number() const { return number_; }
  int descriptor() const;

  enum class Received : std::uint8_t {
    all,
    // There may be more.
    some,
    // Nothing can be received now, although packets may wait.
    failed,
  };
  // Passes waiting packets to the handler, kPacketsPerReceive at most, without blocking.
  Received receive(const std::function<void(const Packet&)>& handler);
  static constexpr std::size_t kPacketsPerReceive = 8;

  // Accepts the packet, unchanged or with a new mark. Only the first verdict on a packet counts;
  // true if this is the first. A verdict that the kernel rejects for lack of memory is kept until
  // retryUnsent().
  bool accept(std::uint32_t id) { return give({.id = id, .mark = std::nullopt}); }
  bool acceptMarked(std::uint32_t id, std::uint32_t mark) { return give({.id = id, .mark = mark}); }
  // The same, but the packet passes the chain that has queued it again, with the new mark.
  bool repeatMarked(std::uint32_t id, std::uint32_t mark) {
    return give({.id = id, .mark = mark, .fate = Fate::repeated});
  }
  // Drops the packet if resend() has sent another one in its place and returns true; otherwise
  // accepts it unchanged. resend() is called only if this is the first verdict.
  bool replace(std::uint32_t id, const std::function<bool()>& resend);
  // Accepts every packet that is held.
  void acceptAll();

  bool isHeld(std::uint32_t id) const;
  std::size_t heldCount() const;

  // Why the last receive() failed, or why a verdict could not be sent. While there is an error, the
  // kernel holds packets that nothing will release. For the receiving thread.
  platform::OptionalError failure() const;

  // Retries the verdicts that the kernel rejected. Call it periodically; cheap if there are none.
  void retryUnsent();

 private:
  enum class Fate : std::uint8_t { accepted, repeated, dropped };
  // There is at most one per held packet.
  struct Verdict {
    std::uint32_t id = 0;
    std::optional<std::uint32_t> mark;
    Fate fate = Fate::accepted;
  };

  PacketQueue(NetlinkSocket socket, std::uint16_t number, Send send);

  // Passes the packet to the handler if the message contains one.
  void deliver(const nlmsghdr* message, const std::function<void(const Packet&)>& handler);
  bool give(const Verdict& verdict);
  static int codeOf(Fate fate);
  // True if the packet has had no verdict yet; the caller must then give one.
  bool claim(std::uint32_t id);
  void send(const Verdict& verdict);
  // False if it must be retried later.
  bool trySend(const Verdict& verdict);

  NetlinkSocket socket_;
  std::uint16_t number_;
  const Send send_;
  struct Inbox;
  const std::unique_ptr<Inbox> inbox_;
  int receiveError_ = 0;
  std::atomic<int> sendError_ = 0;
  std::atomic<bool> hasUnsent_ = false;
  mutable std::mutex lock_;
  // Both guarded by lock_.
  std::unordered_set<std::uint32_t> held_;
  std::vector<Verdict> unsent_;
};

}  // namespace ostravel::linuxplatform
