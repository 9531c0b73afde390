#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

namespace ostravel::linuxplatform {

// The number of values that the default mask leaves for loops; a wider mask does not allow more.
inline constexpr unsigned kMaximumEventLoops = 29;

// The bits of the packet mark that this system uses, and the meaning of their values. All other
// bits belong to other programs and are preserved. A value type, passed to all code that marks
// sockets or packets.
class PacketMarks {
 public:
  // Five bits that few programs use.
  static constexpr std::uint32_t kDefaultMask = 0x3e000000;
  // Enough for our own traffic, refusals and the redirections of a few event loops.
  static constexpr unsigned kFewestBits = 3;

  constexpr PacketMarks() = default;

  // Empty unless the mask is one contiguous run of at least kFewestBits bits.
  static constexpr std::optional<PacketMarks> fromMask(std::uint32_t mask);

  constexpr std::uint32_t mask() const { return mask_; }

  // Set on every socket of this process, so that our rules never offer our own traffic.
  constexpr std::uint32_t own() const { return unit(); }
  // Set on a first packet that must be answered with a reset (TCP) or port unreachable (UDP).
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
  // 0 is a packet without our mark, 1 is own(), 2 is refuse().
  static constexpr unsigned kFirstRedirectValue = 3;

  // The lowest bit of the mask.
  constexpr std::uint32_t unit() const { return mask_ & (~mask_ + 1); }

  std::uint32_t mask_ = kDefaultMask;
};

constexpr std::optional<PacketMarks> PacketMarks::fromMask(std::uint32_t mask) {
  PacketMarks marks;
  marks.mask_ = mask;
  // A contiguous run has a power of two of values.
  const std::uint64_t values = mask == 0 ? 0 : std::uint64_t{mask / marks.unit()} + 1;
  const bool isOneRun = (values & (values - 1)) == 0;
  if (!isOneRun || values < (std::uint64_t{1} << kFewestBits)) {
    return std::nullopt;
  }
  return marks;
}

}  // namespace ostravel::linuxplatform
