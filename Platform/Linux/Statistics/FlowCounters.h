#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Platform/Interface/FlowObserver.h"
#include "Platform/Interface/Log.h"
#include "Platform/Linux/Statistics/DurationHistogram.h"

namespace ostravel::linuxplatform {

inline constexpr std::size_t kFlowEnds = static_cast<std::size_t>(platform::FlowEnd::abandoned) + 1;

// Counts the outcomes of one event loop's flows. Nearly always changed by that loop's thread alone,
// so that threads share no cache line; readable from any thread.
struct alignas(64) FlowCounters {
  // Where failures that the core does not log are logged, so that each flow that fails has a line.
  // Null for nowhere; not changed once there are flows. Here, because every flow knows its
  // counters.
  platform::Log* log = nullptr;
  // Handshakes in progress, and open tunnels.
  std::atomic<std::int64_t> pending = 0;
  std::atomic<std::int64_t> open = 0;
  // Successful handshakes, and the ends of all taken flows.
  std::atomic<std::uint64_t> established = 0;
  std::array<std::atomic<std::uint64_t>, kFlowEnds> ends{};
  // Bytes sent and received by applications.
  std::atomic<std::uint64_t> bytesSent = 0;
  std::atomic<std::uint64_t> bytesReceived = 0;
  // When a handshake last succeeded, and when one last reached its deadline, in seconds since 1970.
  std::atomic<double> lastSuccess = 0;
  std::atomic<double> lastTimeout = 0;
  // From sending the request to the complete answer.
  DurationHistogram handshakes;
};

}  // namespace ostravel::linuxplatform
