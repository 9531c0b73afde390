#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringClient.h"

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <utility>

#include "Extension/ProxyTunnelCore/MonitoringLossReport.h"
#include "Extension/ProxyTunnelCore/SocketAddress.h"
#include "Platform/Interface/ProviderError.h"

namespace ostravel {

using platform::Error;
using platform::OptionalError;

namespace {

// The overhead of an allocation: its header and rounding.
constexpr std::size_t kAllocationBytes = 32;
// A work item without its event: two shared pointers and the queue's entry.
constexpr std::size_t kWorkItemBytes = 256;
// The links and the colour of a node of a map.
constexpr std::size_t kMapNodeBytes = 4 * sizeof(void*);

// Assumes that no string is short enough to be stored inline.
std::size_t heapBytes(const std::string& text) {
  return text.capacity() + 1 + kAllocationBytes;
}

std::size_t heapBytes(double /*number*/) {
  return 0;
}

template <typename Value>
std::size_t heapBytes(const std::map<std::string, Value>& map) {
  std::size_t bytes = 0;
  for (const auto& item : map) {
    bytes += kMapNodeBytes + sizeof(item) + kAllocationBytes;
    bytes += heapBytes(item.first) + heapBytes(item.second);
  }
  return bytes;
}

template <typename Value>
std::size_t heapBytes(const std::optional<Value>& value) {
  return value ? heapBytes(*value) : 0;
}

// An upper bound on the memory of an event while its work item waits.
std::size_t waitingBytes(const ProxyTunnelMonitoringEvent& event) {
  std::size_t bytes = kWorkItemBytes + sizeof(event) + 2 * kAllocationBytes;
  for (const std::string* text :
       {&event.messageID(), &event.loggedAt(), &event.type(), &event.currentSignal(),
        &event.component(), &event.level(), &event.code(), &event.message()}) {
    bytes += heapBytes(*text);
  }
  return bytes + heapBytes(event.flowID()) + heapBytes(event.metrics()) +
         heapBytes(event.context());
}

}  // namespace

class ProxyTunnelMonitoringClient::Delivery {
 public:
  Delivery(platform::Platform& platform, ProxyTunnelMonitoringFrameEncoder encoder, Sender sender)
      : platform_(platform), encoder_(encoder), sender_(std::move(sender)) {}

  // True if an event of this size may wait; otherwise counts it as dropped.
  bool admit(std::size_t bytes) {
    std::size_t waiting = waitingBytes_;
    do {
      if (bytes > kMaxWaitingBytes || waiting > kMaxWaitingBytes - bytes) {
        ++droppedEvents_;
        ++totals_.dropped;
        return false;
      }
    } while (!waitingBytes_.compare_exchange_weak(waiting, waiting + bytes));
    ++totals_.emitted;
    return true;
  }

  // bytes: as admitted.
  void deliver(const ProxyTunnelMonitoringEvent& event, const std::string& path,
               std::size_t bytes) {
    const auto error = attempt(event, path);
    waitingBytes_ -= bytes;
    const double now = platform_.clock().secondsSince1970();
    if (error) {
      ++totals_.failed;
      platform_.systemLog("OstravelProxy monitoring send failed: " + platform::describe(*error));
      explain(lossReport_.lost(path, *error, now));
    } else {
      reportDroppedEvents();
      explain(lossReport_.delivered(path, now));
    }
  }

  Counts counts() const {
    return {.emitted = totals_.emitted + totals_.dropped,
            .failed = totals_.failed,
            .dropped = totals_.dropped,
            .waitingBytes = waitingBytes_};
  }

 private:
  OptionalError attempt(const ProxyTunnelMonitoringEvent& event, const std::string& path) const {
    const auto encoded = encoder_.encode(event);
    if (!encoded) {
      return encoded.error();
    }
    return sender_ ? sender_(path, *encoded)
                   : sendFrameToSocket(platform_.sockets(), path, *encoded);
  }

  void explain(const std::optional<std::string>& line) const {
    if (line) {
      platform_.systemLog(*line);
    }
  }

  // Only once half of the room is free: a slow companion would otherwise cause a line for each
  // event that it receives.
  void reportDroppedEvents() {
    if (waitingBytes_ > kMaxWaitingBytes / 2) {
      return;
    }
    if (const auto dropped = droppedEvents_.exchange(0); dropped > 0) {
      platform_.systemLog("OstravelProxy monitoring events dropped: " + std::to_string(dropped));
    }
  }

  platform::Platform& platform_;
  const ProxyTunnelMonitoringFrameEncoder encoder_;
  const Sender sender_;
  std::atomic<std::size_t> waitingBytes_ = 0;
  // Dropped events that have not been reported yet.
  std::atomic<std::uint64_t> droppedEvents_ = 0;
  MonitoringLossReport lossReport_;
  struct Totals {
    std::atomic<std::uint64_t> emitted = 0;
    std::atomic<std::uint64_t> failed = 0;
    std::atomic<std::uint64_t> dropped = 0;
  };
  Totals totals_;
};

namespace {

Error socketError(const platform::SocketCallResult& result, std::string description) {
  return platform::posixError(result.error, std::move(description));
}

OptionalError writeAll(platform::SocketCalls& sockets, int descriptor,
                       std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const auto written = sockets.write(descriptor, bytes);
    if (written.value <= 0) {
      return socketError(written, "Failed to write monitoring frame");
    }
    bytes = bytes.subspan(static_cast<std::size_t>(written.value));
  }
  return std::nullopt;
}

OptionalError connectAndWrite(platform::SocketCalls& sockets, int descriptor, std::string_view path,
                              std::span<const std::byte> frame) {
  const auto address = makeLocalSocketAddress(sockets.addressLayout(), path);
  if (!address) {
    return platform::providerError(platform::kMonitoringPathTooLongCode,
                                   "Monitoring socket path too long");
  }
  const auto connected = sockets.connect(descriptor, *address);
  if (connected.value != 0) {
    return socketError(connected, "Failed to connect to monitoring socket");
  }
  return writeAll(sockets, descriptor, frame);
}

}  // namespace

ProxyTunnelMonitoringClient::ProxyTunnelMonitoringClient(
    platform::Platform& platform, std::optional<std::string> socketPath,
    std::shared_ptr<platform::DispatchQueue> queue, ProxyTunnelMonitoringFrameEncoder encoder,
    Sender sender)
    : platform_(platform),
      queue_(std::move(queue)),
      delivery_(std::make_shared<Delivery>(platform, encoder, std::move(sender))),
      socketPath_(socketPath ? std::make_shared<const std::string>(*std::move(socketPath))
                             : nullptr) {}

void ProxyTunnelMonitoringClient::updateSocketPath(std::optional<std::string_view> path) {
  std::shared_ptr<const std::string> trimmed;
  if (path) {
    trimmed = std::make_shared<const std::string>(platform_.text().trimmed(*path));
  }
  const std::lock_guard guard(lock_);
  socketPath_ = std::move(trimmed);
}

bool ProxyTunnelMonitoringClient::hasSocketPath() const {
  const std::lock_guard guard(lock_);
  return socketPath_ && !socketPath_->empty();
}

void ProxyTunnelMonitoringClient::emit(ProxyTunnelMonitoringEvent event) {
  std::shared_ptr<const std::string> path;
  {
    const std::lock_guard guard(lock_);
    path = socketPath_;
  }
  if (!path || path->empty()) {
    return;
  }
  const std::size_t bytes = waitingBytes(event);
  if (!delivery_->admit(bytes)) {
    return;
  }
  // The current path applies even if it changes before the item runs.
  queue_->async([delivery = delivery_, path = std::move(path), event = std::move(event), bytes] {
    delivery->deliver(event, *path, bytes);
  });
}

ProxyTunnelMonitoringClient::Counts ProxyTunnelMonitoringClient::counts() const {
  Counts counts = delivery_->counts();
  counts.hasPath = hasSocketPath();
  return counts;
}

OptionalError ProxyTunnelMonitoringClient::sendFrameToSocket(platform::SocketCalls& sockets,
                                                             std::string_view path,
                                                             std::span<const std::byte> frame) {
  const auto opened = sockets.socket(AF_UNIX, SOCK_STREAM, 0);
  if (opened.value < 0) {
    return socketError(opened, "Failed to open monitoring socket");
  }
  const int descriptor = static_cast<int>(opened.value);
  auto error = connectAndWrite(sockets, descriptor, path, frame);
  sockets.close(descriptor);
  return error;
}

}  // namespace ostravel
