#include "Extension/FilterDataProvider/OVTunnelConnection.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <variant>

#include "Base/UTF8.h"
#include "Extension/ProxyTunnelCore/ExtensionLog.h"
#include "Platform/Interface/ProviderError.h"

namespace ostravel {

using platform::Data;
using platform::Error;
using platform::LogFields;
using platform::OptionalError;
using platform::TCPConnectionState;

namespace {

constexpr std::string_view kStateKeyPath = "state";

// Any normal answer to CONNECT fits into one read.
constexpr std::size_t kHandshakeReadMaximum = 4096;

constexpr double kMillisecondsPerSecond = 1000.0;

// Keeps an identifier from ending its header line early.
std::string cleanedForHeader(std::string text) {
  std::erase(text, '\r');
  std::erase(text, '\n');
  return text;
}

bool isEndOfStream(const std::optional<Data>& data) {
  return !data || data->empty();
}

}  // namespace

struct OVTunnelConnection::Handshake {
  explicit Handshake(platform::Platform& platform)
      : parser(std::int64_t{platform::limits::kMaxProxyAnswer}, platform.text()),
        startedAt(platform.clock().secondsSince1970()) {}

  ProxyConnectResponseParser parser;
  double startedAt;
  // Guarded by the lock in common_. Once created, it is not replaced.
  std::shared_ptr<ProxyTunnelHandshakeWatchdog> watchdog;
};

OVTunnelConnection::Common::Common(platform::Platform& usedPlatform, double timeout,
                                   std::shared_ptr<ProxyTunnelMonitoringClient> client,
                                   FlowIdCallback establishedCallback, Callback unavailableCallback,
                                   FlowIdCallback closeCallback)
    : platform(usedPlatform),
      log(makeExtensionLog(usedPlatform)),
      handshakeTimeout(timeout),
      monitoringClient(std::move(client)),
      onHandshakeEstablished(std::move(establishedCallback)),
      onProxyUnavailable(std::move(unavailableCallback)),
      onClose(std::move(closeCallback)) {}

OVTunnelConnection::OVTunnelConnection(Reference<const Common> common,
                                       std::shared_ptr<platform::AppProxyTCPFlow> flow,
                                       std::shared_ptr<platform::TCPConnection> connection,
                                       FlowIdentifier flowId, SharedText appId)
    : common_(std::move(common)),
      flow_(std::move(flow)),
      connection_(std::move(connection)),
      flowId_(std::move(flowId)),
      appId_(std::move(appId)),
      handshake_(std::make_unique<Handshake>(common_->platform)) {}

OVTunnelConnection::~OVTunnelConnection() = default;

void OVTunnelConnection::start() {
  handshakeWatchdog()->start();
  connection_->addObserver(weak_from_this(), kStateKeyPath);
  isObserving_ = true;
  // In the meantime another thread may have closed the tunnel or begun the handshake, for the
  // watchdog or a notification, before there was a registered observer to remove.
  if (isClosed_ || didStartHandshake_) {
    stopObserving();
    return;
  }
  if (connection_->state() == TCPConnectionState::connected) {
    startHandshake();
  }
}

void OVTunnelConnection::stopObserving() {
  if (isObserving_.exchange(false)) {
    connection_->removeObserver(*this, kStateKeyPath);
  }
}

void OVTunnelConnection::observeValue(std::optional<std::string_view> keyPath,
                                      platform::Observable* object) {
  if (keyPath != kStateKeyPath) {
    return;
  }
  const auto* const connection = dynamic_cast<platform::TCPConnection*>(object);
  if (connection == nullptr) {
    return;
  }
  switch (connection->state()) {
    case TCPConnectionState::connected:
      startHandshake();
      break;
    case TCPConnectionState::disconnected:
      close(connection->error());
      break;
    case TCPConnectionState::cancelled:
      close(std::nullopt);
      break;
    case TCPConnectionState::invalid:
    case TCPConnectionState::connecting:
    case TCPConnectionState::waiting:
      break;
  }
}

// Handshake

void OVTunnelConnection::startHandshake() {
  const bool isFirst = !didStartHandshake_.exchange(true);
  // The second caller as well: it may be the one that registered the observer.
  stopObserving();
  if (!isFirst) {
    return;
  }
  handshake_->startedAt = now();
  const std::string target = connectionTarget();
  const std::string request = connectRequest(target);
  if (!isWellFormedUTF8(request)) {
    close(std::nullopt);
    return;
  }
  if (flow_->observer() != nullptr) {
    flow_->observer()->handshakeStarted();
  }
  log().standard("OstravelProxy: Sending CONNECT handshake (details private)", {},
                 routine(monitoring_events::kHandshakeStarted, flowId_.text()));
  emit(monitoring_events::kHandshakeStarted, {{"app_id", *appId_}, {"remote", target}});
  connection_->write(Data::copyOf(request), [weakSelf = weak_from_this(),
                                             &platform =
                                                 common_->platform](const OptionalError& error) {
    const auto self = weakSelf.lock();
    if (error) {
      platform::Log& log = self ? self->log() : platform.defaultLog();
      const std::string flowId = self ? self->flowId_.text() : std::string();
      log.error(
          "OstravelProxy: Error writing CONNECT: %{public}s", {error->localizedDescription},
          self ? self->failure(monitoring_events::kHandshakeWriteFailed, flowId) : LogFields{});
    }
    if (!self) {
      return;
    }
    if (!error) {
      self->readConnectResponse();
      return;
    }
    self->noteEnd(platform::FlowEnd::requestFailed, error->localizedDescription);
    self->emit(monitoring_events::kHandshakeWriteFailed, {{"detail", error->localizedDescription}});
    self->close(error);
  });
}

// The endpoint's host, in brackets if it is an IPv6 literal (RFC 9112, section 3.2.3).
std::string OVTunnelConnection::connectionTarget() const {
  const auto endpoint = flow_->remoteEndpoint();
  if (!endpoint) {
    return "";
  }
  if (endpoint->hostname.find(':') != std::string::npos) {
    return "[" + endpoint->hostname + "]:" + endpoint->port;
  }
  return endpoint->hostname + ":" + endpoint->port;
}

std::string OVTunnelConnection::connectRequest(const std::string& target) const {
  const std::string flowId = flowId_.text();
  std::string request;
  // The words of all lines take less than a hundred.
  request.reserve(2 * target.size() + appId_->size() + flowId.size() + 100);
  request.append("CONNECT ").append(target).append(" HTTP/1.1\r\n");
  request.append("Host: ").append(target).append("\r\n");
  request.append("X-Ostravel-App-Id: ").append(cleanedForHeader(*appId_)).append("\r\n");
  request.append("X-Ostravel-Flow-Id: ").append(cleanedForHeader(flowId)).append("\r\n\r\n");
  return request;
}

void OVTunnelConnection::readConnectResponse() {
  connection_->read(1, kHandshakeReadMaximum,
                    [weakSelf = weak_from_this()](std::optional<Data> data, OptionalError error) {
                      if (const auto self = weakSelf.lock()) {
                        self->handleConnectResponse(std::move(data), std::move(error));
                      }
                    });
}

void OVTunnelConnection::handleConnectResponse(std::optional<Data> data, OptionalError error) {
  if (error) {
    emit(monitoring_events::kHandshakeReadFailed, {{"detail", error->localizedDescription}});
    close(std::move(error));
    return;
  }
  if (isEndOfStream(data)) {
    noteEnd(platform::FlowEnd::noAnswer, "");
    close(std::nullopt);
    return;
  }
  std::visit([this](auto&& outcome) { handle(std::forward<decltype(outcome)>(outcome)); },
             handshake_->parser.append(data->bytes()));
}

void OVTunnelConnection::handle(connect_response::Established outcome) {
  log().info("OstravelProxy: Handshake successful.", {},
             routine(monitoring_events::kHandshakeSucceeded, flowId_.text()));
  finishSuccessfulHandshake(Data(std::move(outcome.leftover)));
}

void OVTunnelConnection::handle(connect_response::Rejected outcome) {
  log().error("OstravelProxy: Handshake failed (response status not 200)", {},
              failure(monitoring_events::kHandshakeRejected, flowId_.text()));
  noteEnd(platform::FlowEnd::rejected, outcome.statusLine.value_or(""));
  emit(monitoring_events::kHandshakeRejected,
       {{"app_id", *appId_}, {"status_line", std::move(outcome.statusLine).value_or("<missing>")}});
  close(std::nullopt);
}

void OVTunnelConnection::handle(connect_response::Invalid outcome) {
  log().error("OstravelProxy: Handshake failed (invalid response)", {},
              failure(monitoring_events::kHandshakeInvalid, flowId_.text()));
  noteEnd(platform::FlowEnd::invalid, outcome.reason);
  emit(monitoring_events::kHandshakeInvalid,
       {{"app_id", *appId_}, {"reason", std::move(outcome.reason)}});
  close(std::nullopt);
}

void OVTunnelConnection::handle(connect_response::NeedMoreData /*outcome*/) {
  readConnectResponse();
}

void OVTunnelConnection::finishSuccessfulHandshake(Data leftoverData) {
  const double elapsedMilliseconds = (now() - handshake_->startedAt) * kMillisecondsPerSecond;
  if (!didEstablishHandshake_.exchange(true)) {
    handshakeWatchdog()->finishWithoutCallback();
    if (common_->onHandshakeEstablished) {
      common_->onHandshakeEstablished(flowId_);
    }
    if (flow_->observer() != nullptr) {
      flow_->observer()->handshakeSucceeded();
    }
  }
  releaseHandshake();
  emit(monitoring_events::kHandshakeSucceeded, {{"app_id", *appId_}},
       {{"elapsed_ms", elapsedMilliseconds},
        {"leftover_bytes", static_cast<double>(leftoverData.size())}});
  pipeLocalToRemote();
  if (leftoverData.empty()) {
    pipeRemoteToLocal();
    return;
  }
  // The other direction starts after the leftover has been written, so that no later bytes overtake
  // it.
  flow_->write(std::move(leftoverData), [weakSelf = weak_from_this()](const OptionalError& error) {
    const auto self = weakSelf.lock();
    if (!self) {
      return;
    }
    if (!error) {
      self->pipeRemoteToLocal();
      return;
    }
    self->log().debug("OstravelProxy: App write error: %{public}s", {error->localizedDescription},
                      self->failure(monitoring_events::kLeftoverWriteFailed, self->flowId_.text()));
    self->emit(monitoring_events::kLeftoverWriteFailed, {{"detail", error->localizedDescription}});
    self->close(error);
  });
}

// Watchdog

std::shared_ptr<ProxyTunnelHandshakeWatchdog> OVTunnelConnection::handshakeWatchdog() {
  platform::Platform& platform = common_->platform;
  const std::lock_guard guard(common_->handshakeLock);
  if (!handshake_) {
    handshake_ = std::make_unique<Handshake>(platform);
  }
  if (!handshake_->watchdog) {
    handshake_->watchdog = std::make_shared<ProxyTunnelHandshakeWatchdog>(
        platform, common_->handshakeTimeout,
        platform.makeQueue("com.ostravel.handshakeWatchdog", platform::DispatchQueueKind::serial),
        [weakSelf = weak_from_this()] {
          if (const auto self = weakSelf.lock()) {
            self->handleHandshakeTimeout();
          }
        });
  }
  return handshake_->watchdog;
}

void OVTunnelConnection::releaseHandshake() {
  // Destroyed without the lock.
  std::unique_ptr<Handshake> released;
  const std::lock_guard guard(common_->handshakeLock);
  released.swap(handshake_);
}

void OVTunnelConnection::handleHandshakeTimeout() {
  Error error = platform::providerError(platform::kHandshakeTimedOutCode,
                                        "Proxy CONNECT handshake timed out");
  log().error("OstravelProxy: CONNECT handshake timed out", {},
              failure(monitoring_events::kHandshakeTimedOut, flowId_.text()));
  noteEnd(platform::FlowEnd::timedOut, error.localizedDescription);
  emit(monitoring_events::kHandshakeTimedOut, {{"app_id", *appId_}},
       {{"timeout_seconds", common_->handshakeTimeout}});
  close(std::move(error));
}

// Relay

void OVTunnelConnection::pipeLocalToRemote() {
  if (isClosed_) {
    return;
  }
  flow_->read([weakSelf = weak_from_this()](std::optional<Data> data, OptionalError readError) {
    const auto self = weakSelf.lock();
    if (self &&
        self->goesOn(data, std::move(readError), "OstravelProxy: App read error: %{public}s")) {
      self->connection_->write(*std::move(data), [self](OptionalError writeError) {
        if (self->goesOn(std::move(writeError), "OstravelProxy: Proxy write error: %{public}s")) {
          self->pipeLocalToRemote();
        }
      });
    }
  });
}

void OVTunnelConnection::pipeRemoteToLocal() {
  if (isClosed_) {
    return;
  }
  connection_->read(
      1, platform::limits::kMaxRelayRead,
      [weakSelf = weak_from_this()](std::optional<Data> data, OptionalError readError) {
        const auto self = weakSelf.lock();
        if (self && self->goesOn(data, std::move(readError),
                                 "OstravelProxy: Proxy read error: %{public}s")) {
          self->flow_->write(*std::move(data), [self](OptionalError writeError) {
            if (self->goesOn(std::move(writeError), "OstravelProxy: App write error: %{public}s")) {
              self->pipeRemoteToLocal();
            }
          });
        }
      });
}

bool OVTunnelConnection::goesOn(const std::optional<Data>& data, OptionalError error,
                                std::string_view logFormat) {
  if (!goesOn(std::move(error), logFormat)) {
    return false;
  }
  if (isEndOfStream(data)) {
    close(std::nullopt);
    return false;
  }
  return true;
}

bool OVTunnelConnection::goesOn(OptionalError error, std::string_view logFormat) {
  if (!error) {
    return true;
  }
  log().debug(logFormat, {error->localizedDescription},
              routine(monitoring_events::kTunnelClosedWithError, flowId_.text()));
  close(std::move(error));
  return false;
}

// Close

void OVTunnelConnection::close(OptionalError error) {
  if (isClosed_.exchange(true)) {
    return;
  }
  stopObserving();
  if (!didEstablishHandshake_) {
    handshakeWatchdog()->finishWithoutCallback();
  }
  if (error && !didEstablishHandshake_ && common_->onProxyUnavailable) {
    common_->onProxyUnavailable();
  }
  noteClose(error);
  emit(error ? monitoring_events::kTunnelClosedWithError : monitoring_events::kTunnelClosed,
       {{"app_id", *appId_}, {"detail", error ? error->localizedDescription : "eof"}});
  flow_->closeRead(error);
  flow_->closeWrite(error);
  connection_->cancel();
  if (common_->onClose) {
    common_->onClose(flowId_);
  }
}

// A failure before the close has already been recorded, and takes precedence.
void OVTunnelConnection::noteClose(const OptionalError& error) {
  using platform::FlowEnd;
  if (didEstablishHandshake_) {
    noteEnd(error ? FlowEnd::failed : FlowEnd::closed,
            error ? error->localizedDescription : std::string("eof"));
  } else {
    noteEnd(error ? FlowEnd::connectionFailed : FlowEnd::abandoned,
            error ? error->localizedDescription : std::string());
  }
}

void OVTunnelConnection::noteEnd(platform::FlowEnd end, std::string_view detail) const {
  if (flow_->observer() != nullptr) {
    flow_->observer()->ended(end, detail);
  }
}

LogFields OVTunnelConnection::routine(const MonitoringEventKind& kind, const std::string& flowId) {
  return {.flowID = flowId, .application = {}, .code = kind.code};
}

LogFields OVTunnelConnection::failure(const MonitoringEventKind& kind,
                                      const std::string& flowId) const {
  return {.flowID = flowId, .application = *appId_, .code = kind.code};
}

void OVTunnelConnection::emit(const MonitoringEventKind& kind, Context context,
                              Metrics metrics) const {
  using Event = ProxyTunnelMonitoringEvent;
  ProxyTunnelMonitoringClient& client = *common_->monitoringClient;
  if (!client.hasSocketPath()) {
    return;
  }
  auto measured = metrics.size() == 0
                      ? std::nullopt
                      : std::optional(Event::Metrics(metrics.begin(), metrics.end()));
  client.emit(makeMonitoringEvent(common_->platform, kind, flowId_.text(),
                                  Event::Context(context.begin(), context.end()),
                                  std::move(measured)));
}

}  // namespace ostravel
