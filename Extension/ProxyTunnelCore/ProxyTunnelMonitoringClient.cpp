#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringClient.h"

#include <sys/socket.h>

#include <utility>
#include <variant>

#include "Extension/ProxyTunnelCore/ExtensionLog.h"
#include "Extension/ProxyTunnelCore/SocketAddress.h"

namespace ostravel {

using platform::Error;
using platform::OptionalError;

struct ProxyTunnelMonitoringClient::Delivery {
  platform::Platform& platform;
  ProxyTunnelMonitoringFrameEncoder encoder;
  Sender sender;

  void deliver(const ProxyTunnelMonitoringEvent& event, const std::string& path) const {
    if (const auto error = attempt(event, path)) {
      platform.systemLog("OstravelProxy monitoring send failed: " + platform::describe(*error));
    }
  }

 private:
  OptionalError attempt(const ProxyTunnelMonitoringEvent& event, const std::string& path) const {
    const auto encoded = encoder.encode(event);
    if (const auto* error = std::get_if<Error>(&encoded)) {
      return *error;
    }
    const auto& frame = std::get<ProxyTunnelMonitoringFrameEncoder::Frame>(encoded);
    return sender ? sender(path, frame) : sendFrameToSocket(platform.sockets(), path, frame);
  }
};

namespace {

constexpr std::int64_t kPathTooLongCode = 1101;

Error socketError(const platform::SocketCallResult& result, std::string description) {
  return Error{std::string(platform::kPOSIXErrorDomain), result.error, std::move(description)};
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
    return Error{std::string(kErrorDomain), kPathTooLongCode, "Monitoring socket path too long"};
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
      delivery_(std::make_shared<const Delivery>(Delivery{platform, encoder, std::move(sender)})),
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

void ProxyTunnelMonitoringClient::emit(ProxyTunnelMonitoringEvent event) {
  std::shared_ptr<const std::string> path;
  {
    const std::lock_guard guard(lock_);
    path = socketPath_;
  }
  if (!path || path->empty()) {
    return;
  }
  // The path in effect now is used even if it changes before the item runs.
  queue_->async([delivery = delivery_, path = std::move(path), event = std::move(event)] {
    delivery->deliver(event, *path);
  });
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
