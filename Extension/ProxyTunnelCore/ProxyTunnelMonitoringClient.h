#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringEvent.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringFrameEncoder.h"
#include "Platform/Interface/Error.h"
#include "Platform/Interface/Platform.h"

namespace ostravel {

// Delivers events to the companion that listens on the monitoring socket. Callers never wait and
// are not informed of failures; an event that cannot be delivered is lost after one line in the
// system log, which a MonitoringLossReport explains. Owned by the provider for its whole lifetime
// and shared with every tunnel; usable from any thread.
//
// A companion that stops reading stalls the queue, never a caller, and costs at most
// kMaxWaitingBytes: an event that no longer fits is dropped. Once events are delivered again and
// half of the room is free, one line in the system log gives the number of dropped events.
class ProxyTunnelMonitoringClient {
 public:
  using Sender = std::function<platform::OptionalError(const std::string& path,
                                                       std::span<const std::byte> frame)>;

  // Limit on the memory of waiting events and their work items, about two thousand. Enough to
  // bridge a restart of the companion; small enough to be harmless if it hangs forever.
  static constexpr std::size_t kMaxWaitingBytes = std::size_t{4} * 1024 * 1024;

  // Without a sender, sendFrameToSocket is used. All encoding and sending runs on queue, which is
  // serial, so frames arrive in the order of the calls.
  ProxyTunnelMonitoringClient(platform::Platform& platform, std::optional<std::string> socketPath,
                              std::shared_ptr<platform::DispatchQueue> queue,
                              ProxyTunnelMonitoringFrameEncoder encoder, Sender sender = nullptr);

  // Trims the path. Absent or empty: events are dropped silently.
  void updateSocketPath(std::optional<std::string_view> path);

  // Without one, an event need not be made.
  bool hasSocketPath() const;

  void emit(ProxyTunnelMonitoringEvent event);

  // Since the client was created. Events without a path are not counted.
  struct Counts {
    bool hasPath = false;
    std::uint64_t emitted = 0;
    std::uint64_t failed = 0;
    std::uint64_t dropped = 0;
    std::size_t waitingBytes = 0;
  };
  Counts counts() const;

  // Delivers one frame over a new connection; blocks until the kernel has accepted all of it.
  // Errors: 1101 "OstravelProxy" for a path of more than 103 bytes, otherwise errno.
  static platform::OptionalError sendFrameToSocket(platform::SocketCalls& sockets,
                                                   std::string_view path,
                                                   std::span<const std::byte> frame);

 private:
  // Shared with the work items; outlives the client while items are waiting.
  class Delivery;

  platform::Platform& platform_;
  const std::shared_ptr<platform::DispatchQueue> queue_;
  const std::shared_ptr<Delivery> delivery_;
  mutable std::mutex lock_;
  std::shared_ptr<const std::string> socketPath_;
};

}  // namespace ostravel
