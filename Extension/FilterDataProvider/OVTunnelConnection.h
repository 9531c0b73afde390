#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Base/FlowIdentifier.h"
#include "Base/ReferenceCounted.h"
#include "Base/SharedText.h"
#include "Extension/ProxyTunnelCore/MonitoringEventKind.h"
#include "Extension/ProxyTunnelCore/ProxyConnectResponseParser.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelHandshakeWatchdog.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringClient.h"
#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Interface/KeyValueObserver.h"
#include "Platform/Interface/Platform.h"
#include "Platform/Interface/SystemLimits.h"
#include "Platform/Interface/TCPConnection.h"

namespace ostravel {

// One tunnel: an application's flow and its connection to the local proxy. Performs the CONNECT
// handshake, then relays bytes both ways until either side ends, then tears both down exactly once.
//
// Owned by the provider's table until it reports its close. Completions hold it weakly, except the
// relay's writes. Runs on the platform's completion threads, where completions of one tunnel never
// overlap; state that the watchdog's timer and the provider's stop also use is atomic.
//
// States: created; waiting for the connection; sending the request; reading the answer;
// established; closed. There is no half-close: an end of stream either way ends both ways.
// Destroying a tunnel does not close it, so its owner closes it first.
class OVTunnelConnection final : public platform::KeyValueObserver,
                                 public std::enable_shared_from_this<OVTunnelConnection> {
 public:
  using FlowIdCallback = std::function<void(const FlowIdentifier& flowId)>;
  using Callback = std::function<void()>;

  // What is the same for every tunnel of a provider, which makes it. Shared with the tunnels: a
  // machine may have thousands of idle ones.
  struct Common final : ReferenceCounted {
    // handshakeTimeout in seconds. Any callback may be empty.
    Common(platform::Platform& platform, double handshakeTimeout,
           std::shared_ptr<ProxyTunnelMonitoringClient> monitoringClient,
           FlowIdCallback onHandshakeEstablished, Callback onProxyUnavailable,
           FlowIdCallback onClose);

    platform::Platform& platform;
    const std::shared_ptr<platform::Log> log;
    const double handshakeTimeout;
    const std::shared_ptr<ProxyTunnelMonitoringClient> monitoringClient;
    const FlowIdCallback onHandshakeEstablished;
    const Callback onProxyUnavailable;
    const FlowIdCallback onClose;
    // For a debugger or a crash report only: the connection that was passed in decides where the
    // tunnel leads.
    [[maybe_unused]] const std::string proxyHost{platform::limits::kProxyHost};
    [[maybe_unused]] const std::uint16_t proxyPort = platform::limits::kProxyPort;
    // Guards each tunnel's pointer to what its handshake needs, for an instant.
    mutable std::mutex handshakeLock;
  };

  OVTunnelConnection(Reference<const Common> common,
                     std::shared_ptr<platform::AppProxyTCPFlow> flow,
                     std::shared_ptr<platform::TCPConnection> connection, FlowIdentifier flowId,
                     SharedText appId);
  ~OVTunnelConnection() override;

  const FlowIdentifier& flowId() const { return flowId_; }

  // Called once. Arms the watchdog, observes the connection, and begins the handshake as soon as
  // the connection is established. The timeout covers both.
  void start();

  // Tears the tunnel down; only the first call has an effect. Without an error it is an orderly
  // end. An error before the handshake succeeded reports the proxy as unavailable.
  void close(platform::OptionalError error);

  void observeValue(std::optional<std::string_view> keyPath, platform::Observable* object) override;

  // The watchdog, created on first use. Released when the handshake has succeeded, because a tunnel
  // may live for a long time after that.
  std::shared_ptr<ProxyTunnelHandshakeWatchdog> handshakeWatchdog();

 private:
  // Those of an event, which are copied only if there is somewhere to send it.
  using Metrics = std::initializer_list<std::pair<std::string_view, double>>;
  using Context = std::initializer_list<std::pair<std::string_view, std::string_view>>;

  void stopObserving();

  void startHandshake();
  std::string connectionTarget() const;
  std::string connectRequest(const std::string& target) const;
  void readConnectResponse();
  void handleConnectResponse(std::optional<platform::Data> data, platform::OptionalError error);
  void handle(connect_response::Established outcome);
  void handle(connect_response::Rejected outcome);
  void handle(connect_response::Invalid outcome);
  void handle(connect_response::NeedMoreData outcome);
  void finishSuccessfulHandshake(platform::Data leftoverData);
  void handleHandshakeTimeout();
  void releaseHandshake();

  void pipeLocalToRemote();
  void pipeRemoteToLocal();
  // True if the relay continues after a read or a write. Otherwise the tunnel has been closed: with
  // the error, which has been logged in this format, or in order at the end of the stream.
  bool goesOn(const std::optional<platform::Data>& data, platform::OptionalError error,
              std::string_view logFormat);
  bool goesOn(platform::OptionalError error, std::string_view logFormat);

  void noteClose(const platform::OptionalError& error);
  void noteEnd(platform::FlowEnd end, std::string_view detail) const;

  // The fields of a log line that goes with an event of this kind, as long as flowId exists.
  // Routine lines, which include the last one of most tunnels, do not name the application.
  static platform::LogFields routine(const MonitoringEventKind& kind, const std::string& flowId);
  platform::LogFields failure(const MonitoringEventKind& kind, const std::string& flowId) const;

  void emit(const MonitoringEventKind& kind, Context context, Metrics metrics = {}) const;

  // What only the handshake needs. Used by the tunnel's completions, except for the watchdog.
  struct Handshake;

  platform::Log& log() const { return *common_->log; }
  double now() const { return common_->platform.clock().secondsSince1970(); }

  const Reference<const Common> common_;
  const std::shared_ptr<platform::AppProxyTCPFlow> flow_;
  const std::shared_ptr<platform::TCPConnection> connection_;
  const FlowIdentifier flowId_;
  const SharedText appId_;
  // Until the handshake has succeeded. Other threads use it with the lock in common_, with which it
  // is released.
  std::unique_ptr<Handshake> handshake_;
  std::atomic<bool> isClosed_ = false;
  std::atomic<bool> isObserving_ = false;
  // The connection may be seen connected both by start() and by an observation on another thread.
  std::atomic<bool> didStartHandshake_ = false;
  std::atomic<bool> didEstablishHandshake_ = false;
};

}  // namespace ostravel
