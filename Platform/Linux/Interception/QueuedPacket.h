#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Platform/Linux/Identity/ProxyInstance.h"
#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Platform/Linux/Relay/HeldPacket.h"
#include "Platform/Linux/Services/UserShare.h"

namespace ostravel::linuxplatform {

// One packet in the netfilter queue, until its verdict. The queue may have released it before.
class QueuedPacket final : public HeldPacket {
 public:
  // user: charged with one held packet until the verdict. proxy: the local proxy at the time of the
  // offer. If it has ended since, an apparent refusal is a consequence of that; if another socket
  // listens, the flow's tunnel may lead to a stranger. The flow is left to the system in both
  // cases.
  QueuedPacket(std::shared_ptr<PacketQueue> queue, const PacketMarks& marks,
               const PacketQueue::Packet& packet, std::shared_ptr<UserShare> user,
               std::optional<ProxyInstance> proxy = std::nullopt);
  ~QueuedPacket() override;

  void accept() override;
  void redirect(unsigned loopIndex) override;
  void refuse() override;

 private:
  // Replaces our bits of the packet's mark.
  void acceptMarked(std::uint32_t mark);

  const std::shared_ptr<PacketQueue> queue_;
  const PacketMarks marks_;
  const std::uint32_t id_;
  const std::uint32_t mark_;
  const std::shared_ptr<UserShare> user_;
  const std::optional<ProxyInstance> proxy_;
};

}  // namespace ostravel::linuxplatform
