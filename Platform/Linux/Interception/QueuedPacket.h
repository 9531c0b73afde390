#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Platform/Linux/Identity/ProxyInstance.h"
#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Platform/Linux/Kernel/PacketResender.h"
#include "Platform/Linux/Relay/HeldPacket.h"
#include "Platform/Linux/Services/UserShare.h"

namespace ostravel::linuxplatform {

// One packet in the netfilter queue, until its verdict. The queue may have released it before.
class QueuedPacket final : public HeldPacket {
 public:
  // user: charged with one held packet until the verdict. proxy: the local proxy at the time of the
  // offer. If it has ended since, an apparent refusal is a consequence of that; if another socket
  // listens now, the tunnel may lead to a stranger. In both cases the flow is left to the system.
  // resender: if present, a redirected packet is replaced by a copy that passes all rules again.
  QueuedPacket(std::shared_ptr<PacketQueue> queue, const PacketMarks& marks,
               const PacketQueue::Packet& packet, Reference<UserShare> user,
               std::optional<ProxyInstance> proxy = std::nullopt,
               std::shared_ptr<const PacketResender> resender = nullptr);
  ~QueuedPacket() override;

  void accept() override;
  void redirect(unsigned loopIndex) override;
  void refuse() override;

 private:
  void acceptMarked(std::uint32_t mark);
  void repeatMarked(std::uint32_t mark);
  void resendMarked(std::uint32_t mark);
  // The packet's mark with our bits replaced.
  std::uint32_t markWith(std::uint32_t bits) const { return (mark_ & ~marks_.mask()) | bits; }

  const std::shared_ptr<PacketQueue> queue_;
  const PacketMarks marks_;
  const std::uint32_t id_;
  const std::uint32_t mark_;
  const Reference<UserShare> user_;
  const std::optional<ProxyInstance> proxy_;
  const std::shared_ptr<const PacketResender> resender_;
  // Empty unless there is a resender.
  const std::vector<std::byte> bytes_;
};

}  // namespace ostravel::linuxplatform
