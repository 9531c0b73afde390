#pragma once

namespace ostravel::linuxplatform {

// The first packet of an intercepted flow, held in the kernel until its verdict. Only the first
// verdict counts. Destroyed without a verdict, it is accepted unchanged, which leaves the flow to
// the system. Usable from any thread, one at a time.
class HeldPacket {
 public:
  HeldPacket() = default;
  HeldPacket(const HeldPacket&) = delete;
  HeldPacket& operator=(const HeldPacket&) = delete;
  virtual ~HeldPacket() = default;

  // Leaves the flow to the system: the packet is sent unchanged.
  virtual void accept() = 0;
  // Releases a TCP flow's SYN, marked so that it arrives at the listener of this event loop.
  virtual void redirect(unsigned loopIndex) = 0;
  // Answers with a TCP reset, or with ICMP port unreachable for UDP.
  virtual void refuse() = 0;
};

}  // namespace ostravel::linuxplatform
