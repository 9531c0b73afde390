#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

namespace ostravel::linuxplatform {

// As many as the default mask has values for; a wider one does not get more.
inline constexpr unsigned kMaximumEventLoops = 29;

// The bits of the packet mark that are ours, and what their values mean. All other bits belong to
// the programs that set them and are kept. A value, given to everything that marks sockets or
// packets.
class PacketMarks {
 public:
  // Five bits that few programs use.
  static constexpr std::uint32_t kDefaultMask = 0x3e000000;
  // Own traffic, refusals, and the redirections of at least one event loop need four values.
  static constexpr unsigned kFewestBits = 3;

  constexpr PacketMarks() = default;

  // Absent unless the mask is one run of at least kFewestBits bits.
  static constexpr std::optional<PacketMarks> fromMask(std::uint32_t mask);

  constexpr std::uint32_t mask() const { return mask_; }

  // Carried by every socket of this process, so that no rule of ours ever offers our own traffic.
  constexpr std::uint32_t own() const { return unit(); }
  // Given to a first packet that is to be answered with a reset (TCP) or port unreachable (UDP).
  constexpr std::uint32_t refuse() const { return 2 * unit(); }
  // Event loop i accepts the flows whose first packet was released with redirect(i).
  constexpr std::uint32_t redirect(unsigned loopIndex) const {
    return (kFirstRedirectValue + loopIndex) * unit();
  }
  constexpr unsigned maximumEventLoops() const {
    return std::min(kMaximumEventLoops, mask_ / unit() + 1 - kFirstRedirectValue);
  }

  friend bool operator==(const PacketMarks&, const PacketMarks&) = default;

 private:
  // 0 is a packet without a mark of ours.
  static constexpr unsigned kFirstRedirectValue = 3;

  // The lowest of the bits.
  constexpr std::uint32_t unit() const { return mask_ & (~mask_ + 1); }

  std::uint32_t mask_ = kDefaultMask;
};

constexpr std::optional<PacketMarks> PacketMarks::fromMask(std::uint32_t mask) {
  PacketMarks marks;
  marks.mask_ = mask;
  // A mask with room for every value fills its bits from the lowest on.
  const std::uint64_t values = mask == 0 ? 0 : std::uint64_t{mask / marks.unit()} + 1;
  const bool isOneRun = (values & (values - 1)) == 0;
  if (!isOneRun || values < (std::uint64_t{1} << kFewestBits)) {
    return std::nullopt;
  }
  return marks;
}

}  // namespace ostravel::linuxplatform
