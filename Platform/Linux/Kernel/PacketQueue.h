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
#include <vector>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Kernel/NetfilterBatch.h"

namespace ostravel::linuxplatform {

// The netfilter queue on which first packets are offered and held (nfnetlink_queue).
//
// Packets are received by one thread; verdicts may be given from any thread. When the queue is full
// the kernel lets packets pass unseen, and when the object ends, the packets still held are
// dropped, which costs their senders one retransmission.
class PacketQueue {
 public:
  struct Packet {
    std::uint32_t id = 0;
    std::uint32_t mark = 0;
    // Who made the socket that sent it. Absent when no program has that socket, as with what the
    // kernel itself sends. A packet that the kernel has wrapped for a tunnel is still said to be
    // of the socket that sent what is in it.
    std::optional<uid_t> uid;
    // Through which interface the packet leaves unless something reroutes it; 0 when unknown.
    std::uint32_t outputInterface = 0;
    // From the network header on, cut off behind what the parser needs.
    std::span<const std::byte> bytes;
  };

  // Gives a message to the kernel: 0, or what went wrong.
  using Send = std::function<int(mnl_socket*, const nlmsghdr*)>;
  static int sendNow(mnl_socket* socket, const nlmsghdr* message);

  // Takes the first free queue number from a fixed range.
  static platform::Result<std::unique_ptr<PacketQueue>> open(Send send = &sendNow);

  std::uint16_t number() const { return number_; }
  int descriptor() const;

  // Hands over the packets of one message; false, at once, when there is none.
  bool receive(const std::function<void(const Packet&)>& handler);

  // The two verdicts: the packet goes on as it is, or with a new mark. One that the kernel does not
  // take for lack of memory is kept until retryUnsent().
  void accept(std::uint32_t id) const { give({id, std::nullopt}); }
  void acceptMarked(std::uint32_t id, std::uint32_t mark) const { give({id, mark}); }

  // Gives the verdicts again that the kernel has not taken. To be called now and then; cheap when
  // there are none.
  void retryUnsent() const;

 private:
  // At most one for each packet that is held.
  struct Verdict {
    std::uint32_t id = 0;
    std::optional<std::uint32_t> mark;
  };

  PacketQueue(NetlinkSocket socket, std::uint16_t number, Send send);

  void give(const Verdict& verdict) const;
  // False: the kernel may take it later.
  bool tryToGive(const Verdict& verdict) const;

  NetlinkSocket socket_;
  std::uint16_t number_;
  const Send send_;
  std::vector<char> buffer_;
  mutable std::atomic<bool> hasUnsent_ = false;
  mutable std::mutex unsentLock_;
  // Guarded by unsentLock_.
  mutable std::vector<Verdict> unsent_;
};

}  // namespace ostravel::linuxplatform
