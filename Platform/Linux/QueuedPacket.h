#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Platform/Linux/HeldPacket.h"
#include "Platform/Linux/PacketQueue.h"

namespace ostravel::linuxplatform {

// One packet in the netfilter queue, until its verdict.
class QueuedPacket final : public HeldPacket {
 public:
  // The packet itself, which the verdict thread also remembers, so that it can let everything go
  // that is still held when the interception ends.
  class State {
   public:
    State(std::shared_ptr<const PacketQueue> queue, std::uint32_t id, std::uint32_t mark);

    void accept();
    // Replaces our bits of the packet's mark.
    void acceptMarked(std::uint32_t mark);
    bool isDecided() const { return isDecided_; }

   private:
    const std::shared_ptr<const PacketQueue> queue_;
    const std::uint32_t id_;
    const std::uint32_t mark_;
    std::atomic<bool> isDecided_ = false;
  };

  explicit QueuedPacket(std::shared_ptr<State> state);
  ~QueuedPacket() override;

  void accept() override;
  void redirect(unsigned loopIndex) override;
  void refuse() override;

 private:
  const std::shared_ptr<State> state_;
};

}  // namespace ostravel::linuxplatform
