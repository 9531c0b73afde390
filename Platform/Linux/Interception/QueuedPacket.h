#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Platform/Linux/Processes/ProcessLife.h"
#include "Platform/Linux/Relay/HeldPacket.h"
#include "Platform/Linux/Services/UserShare.h"

namespace ostravel::linuxplatform {

// One packet in the netfilter queue, until its verdict.
class QueuedPacket final : public HeldPacket {
 public:
  // The packet itself. Shared with the verdict thread, which can thus release everything that is
  // still held when interception ends.
  class State {
   public:
    // user: charged with one held packet until the verdict.
    State(std::shared_ptr<const PacketQueue> queue, const PacketMarks& marks, std::uint32_t id,
          std::uint32_t mark, std::shared_ptr<UserShare> user);
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State();

    void accept();
    void redirect(unsigned loopIndex) { acceptMarked(marks_.redirect(loopIndex)); }
    void refuse() { acceptMarked(marks_.refuse()); }
    bool isDecided() const { return isDecided_; }

   private:
    // Returns true for the first verdict, the only one that counts.
    bool decide();
    // Replaces our bits of the packet's mark.
    void acceptMarked(std::uint32_t mark);

    const std::shared_ptr<const PacketQueue> queue_;
    const PacketMarks marks_;
    const std::uint32_t id_;
    const std::uint32_t mark_;
    const std::shared_ptr<UserShare> user_;
    std::atomic<bool> isDecided_ = false;
  };

  // proxy: the local proxy at the time of the offer. If it has ended since, an apparent refusal is
  // a consequence of that, and the flow is left to the system instead.
  explicit QueuedPacket(std::shared_ptr<State> state,
                        std::optional<ProcessLife> proxy = std::nullopt);
  ~QueuedPacket() override;

  void accept() override;
  void redirect(unsigned loopIndex) override;
  void refuse() override;

 private:
  const std::shared_ptr<State> state_;
  const std::optional<ProcessLife> proxy_;
};

}  // namespace ostravel::linuxplatform
