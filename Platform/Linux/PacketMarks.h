#pragma once

#include <cstdint>

namespace ostravel::linuxplatform {

// Five bits of the packet mark are ours; the others belong to whoever set them and are kept.
inline constexpr std::uint32_t kMarkShift = 25;
inline constexpr std::uint32_t kMarkMask = 0x1fU << kMarkShift;

// Carried by every socket of this process, so that no rule of ours ever offers our own traffic.
inline constexpr std::uint32_t kOwnMark = 1U << kMarkShift;
// Given to a first packet that is to be answered with a reset (TCP) or port unreachable (UDP).
inline constexpr std::uint32_t kRefuseMark = 2U << kMarkShift;

// Event loop i accepts the flows whose first packet was released with redirectMark(i).
inline constexpr std::uint32_t kFirstRedirectMark = 3;
inline constexpr unsigned kMaximumEventLoops = 32 - kFirstRedirectMark;

constexpr std::uint32_t redirectMark(unsigned loopIndex) {
  return (kFirstRedirectMark + loopIndex) << kMarkShift;
}

}  // namespace ostravel::linuxplatform
