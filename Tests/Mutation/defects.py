"""Concurrency defects, each as (source, a text in it, what replaces the text)."""

TUNNEL = "Extension/FilterDataProvider/OVTunnelConnection.cpp"
DISPATCH = "Extension/FilterDataProvider/PacketTunnelProviderDispatch.cpp"
HEALTH = "Extension/FilterDataProvider/PacketTunnelProviderHealth.cpp"
DECISION = "Extension/FilterDataProvider/PacketTunnelProviderDecision.cpp"
PROVIDER = "Extension/FilterDataProvider/PacketTunnelProvider.cpp"
WATCHDOG = "Extension/ProxyTunnelCore/ProxyTunnelHandshakeWatchdog.cpp"
ADMISSION = "Extension/ProxyTunnelCore/ProxyTunnelAdmissionController.cpp"
GATE = "Extension/ProxyTunnelCore/ProxySafetyGate.cpp"
MONITOR = "Extension/ProxyTunnelCore/ProxyHealthMonitor.cpp"
CLIENT = "Extension/ProxyTunnelCore/ProxyTunnelMonitoringClient.cpp"

DEFECTS = [
    # Closing
    (TUNNEL, "if (isClosed_.exchange(true)) {", "if (isClosed_.load()) {"),
    (TUNNEL, "  stopObserving();\n  if (!didEstablishHandshake_) {",
     "  if (!didEstablishHandshake_) {"),
    (TUNNEL, "  if (!didEstablishHandshake_) {\n    handshakeWatchdog()->finishWithoutCallback();\n  }\n",
     ""),
    (TUNNEL, "error && !didEstablishHandshake_ && common_->onProxyUnavailable",
     "error && common_->onProxyUnavailable"),
    (TUNNEL, "    common_->onProxyUnavailable();\n", ""),
    (TUNNEL, "  flow_->closeRead(error);\n  flow_->closeWrite(error);\n  connection_->cancel();",
     "  flow_->closeWrite(error);\n  flow_->closeRead(error);\n  connection_->cancel();"),
    (TUNNEL, "  flow_->closeWrite(error);\n  connection_->cancel();", "  connection_->cancel();"),
    (TUNNEL, "  flow_->closeWrite(error);\n  connection_->cancel();",
     "  flow_->closeWrite(std::nullopt);\n  connection_->cancel();"),
    (TUNNEL, "  connection_->cancel();\n", ""),
    (TUNNEL, "    common_->onClose(flowId_);\n", ""),
    (TUNNEL, "  connection_->cancel();\n  if (common_->onClose) {\n    common_->onClose(flowId_);\n  }",
     "  if (common_->onClose) {\n    common_->onClose(flowId_);\n    common_->onClose(FlowIdentifier(\"\"));\n  }\n"
     "  flow_->closeRead(error);\n  connection_->cancel();"),
    # Starting
    (TUNNEL, "  if (isClosed_ || didStartHandshake_) {", "  if (false) {"),
    (TUNNEL, "  const bool isFirst = !didStartHandshake_.exchange(true);",
     "  const bool isFirst = !didStartHandshake_.load();"),
    (TUNNEL, "  if (isObserving_.exchange(false)) {", "  if (isObserving_) {"),
    (TUNNEL, "  stopObserving();\n  if (!isFirst) {", "  if (!isFirst) {"),
    (TUNNEL, "  isObserving_ = true;\n", ""),
    (TUNNEL, "  handshakeWatchdog()->start();\n", ""),
    # The handshake
    (TUNNEL, "  if (!didEstablishHandshake_.exchange(true)) {\n"
     "    handshakeWatchdog()->finishWithoutCallback();",
     "  if (!didEstablishHandshake_.exchange(true)) {"),
    (TUNNEL, "  if (!didEstablishHandshake_.exchange(true)) {",
     "  if (!didEstablishHandshake_.load()) {"),
    (TUNNEL, "      common_->onHandshakeEstablished(flowId_);\n", ""),
    (TUNNEL, "  pipeLocalToRemote();\n  if (leftoverData.empty()) {\n    pipeRemoteToLocal();\n"
     "    return;\n  }", "  pipeLocalToRemote();\n  pipeRemoteToLocal();\n"
     "  if (leftoverData.empty()) {\n    return;\n  }"),
    (TUNNEL, "    if (!error) {\n      self->pipeRemoteToLocal();\n      return;\n    }",
     "    if (!error) {\n      return;\n    }"),
    (TUNNEL, "void OVTunnelConnection::handle(connect_response::NeedMoreData /*outcome*/) {\n"
     "  readConnectResponse();",
     "void OVTunnelConnection::handle(connect_response::NeedMoreData /*outcome*/) {"),
    (TUNNEL, "    noteEnd(platform::FlowEnd::noAnswer, \"\");\n    close(std::nullopt);\n",
     "    noteEnd(platform::FlowEnd::noAnswer, \"\");\n"),
    (TUNNEL, "    case TCPConnectionState::disconnected:\n      close(connection->error());",
     "    case TCPConnectionState::disconnected:"),
    (TUNNEL, "      close(connection->error());", "      close(std::nullopt);"),
    (TUNNEL, "       {{\"timeout_seconds\", common_->handshakeTimeout}});\n  close(std::move(error));",
     "       {{\"timeout_seconds\", common_->handshakeTimeout}});"),
    (TUNNEL, "       {{\"timeout_seconds\", common_->handshakeTimeout}});\n  close(std::move(error));",
     "       {{\"timeout_seconds\", common_->handshakeTimeout}});\n  close(std::nullopt);"),
    # The relay
    (TUNNEL, "void OVTunnelConnection::pipeLocalToRemote() {\n  if (isClosed_) {",
     "void OVTunnelConnection::pipeLocalToRemote() {\n  if (false) {"),
    (TUNNEL, "void OVTunnelConnection::pipeRemoteToLocal() {\n  if (isClosed_) {",
     "void OVTunnelConnection::pipeRemoteToLocal() {\n  if (false) {"),
    (TUNNEL, "flowId_.text()));\n  close(std::move(error));\n", "flowId_.text()));\n"),
    (TUNNEL, "      self->pipeLocalToRemote();\n", ""),
    (TUNNEL, "              self->pipeRemoteToLocal();\n", ""),
    # Ends are not noticed: the direction just stops.
    (TUNNEL, "  if (isEndOfStream(data)) {\n    close(std::nullopt);\n    return false;\n  }",
     "  if (isEndOfStream(data)) {\n    return false;\n  }"),
    # The tunnel keeps itself alive, or nothing keeps it alive.
    (TUNNEL, "  connection_->read(1, kHandshakeReadMaximum,\n"
     "                    [weakSelf = weak_from_this()](std::optional<Data> data, OptionalError error) {\n"
     "                      if (const auto self = weakSelf.lock()) {",
     "  connection_->read(1, kHandshakeReadMaximum,\n"
     "                    [weakSelf = weak_from_this(), this](std::optional<Data> data, OptionalError error) {\n"
     "                      if (const auto self = this) {"),
    (TUNNEL, "        [weakSelf = weak_from_this()] {\n          if (const auto self = weakSelf.lock()) {\n"
     "            self->handleHandshakeTimeout();",
     "        [self = shared_from_this()] {\n          if (self) {\n"
     "            self->handleHandshakeTimeout();"),
    # The watchdog
    (WATCHDOG, "  state_ = State::running;\n", ""),
    (WATCHDOG, "  disarm(*timer);\n  queue_ = nullptr;", "  timer->resume();\n  queue_ = nullptr;"),
    (WATCHDOG, "    timer->resume();\n", ""),
    (WATCHDOG, "  TimeoutHandler callback = std::move(onTimeout_);\n  finish();\n  return callback;",
     "  return onTimeout_;"),
    (WATCHDOG, "delayFor(timeout_)", "delayFor(timeout_ / 2)"),
    (WATCHDOG, "  if (state_ != State::idle) {", "  if (state_ == State::running) {"),
    (WATCHDOG, "  if (state_ != State::running) {\n    return nullptr;\n  }\n", ""),
    # Admission
    (ADMISSION, "pendingHandshakeIDs_.size() >= maxPendingHandshakes",
     "pendingHandshakeIDs_.size() > maxPendingHandshakes"),
    (ADMISSION, "  if (auto pending = pendingHandshakeIDs_.extract(flowId)) {",
     "  if (pendingHandshakeIDs_.contains(flowId)) {\n    establishedTunnelIDs_.insert(flowId);\n"
     "  } else if (auto pending = pendingHandshakeIDs_.extract(flowId)) {"),
    (ADMISSION, "  pendingHandshakeIDs_.erase(flowId);\n  establishedTunnelIDs_.erase(flowId);",
     "  establishedTunnelIDs_.erase(flowId);"),
    (ADMISSION, "  pendingHandshakeIDs_.erase(flowId);\n  establishedTunnelIDs_.erase(flowId);",
     "  pendingHandshakeIDs_.erase(flowId);"),
    # The gate and its writers
    (MONITOR, "  gate_->setProxyUnavailable(result == ProxyHealthProbeResult::unreachable);",
     "  if (previous != result) {\n    gate_->setProxyUnavailable("
     "result == ProxyHealthProbeResult::unreachable);\n  }"),
    (MONITOR, "const auto previous = std::exchange(lastResult_, result);",
     "const auto previous = lastResult_;"),
    (GATE, "  proxyUnavailable_ = unavailable;", "  proxyUnavailable_ = proxyUnavailable_ && unavailable;"),
    (HEALTH, "    proxyHealthTimer_->setEventHandler([] {});\n    proxyHealthTimer_->cancel();\n  }\n"
     "  proxyHealthTimer_ = nullptr;", "  }"),
    (DISPATCH, "provider->proxySafetyGate_->setProxyUnavailable(true);",
     "provider->proxySafetyGate_->setProxyUnavailable(false);"),
    # The probe continues after the stop.
    (HEALTH, "    proxyHealthTimer_->setEventHandler([] {});\n    proxyHealthTimer_->cancel();\n  }\n"
     "  proxyHealthTimer_ = nullptr;", "  }\n  static const auto kept = proxyHealthTimer_;"),
    (DISPATCH, "      provider->tunnelAdmissionController_.markEstablished(id);\n", ""),
    # The table of tunnels
    (DISPATCH, "      provider->forgetTunnel(flowId);\n", ""),
    (DISPATCH, "  tunnelAdmissionController_.release(flowId);\n", ""),
    (DISPATCH, "  activeTunnelsQueue_->asyncBarrier([provider = self(), tunnel] {\n"
     "    provider->forgetTunnel(tunnel->flowId());\n"
     "    provider->activeTunnels_.insert(tunnel);\n"
     "  });\n"
     "  tunnel->start();",
     "  tunnel->start();\n"
     "  activeTunnelsQueue_->asyncBarrier([provider = self(), tunnel] {\n"
     "    provider->forgetTunnel(tunnel->flowId());\n"
     "    provider->activeTunnels_.insert(tunnel);\n"
     "  });"),
    (DISPATCH, "  flow.closeRead(error);\n  flow.closeWrite(error);\n}\n\nvoid PacketTunnelProvider::tunnel",
     "  flow.closeRead(error);\n}\n\nvoid PacketTunnelProvider::tunnel"),
    (DECISION, "now + kBypassCacheLifetimeSeconds,", "now + 2 * kBypassCacheLifetimeSeconds,"),
    # Monitoring
    (CLIENT, "    waitingBytes_ -= bytes;\n", ""),
]

# One that every test run puts in, and that must be noticed.
CANARY = (GATE, "  proxyUnavailable_ = unavailable;", "  proxyUnavailable_ = proxyUnavailable_ && unavailable;")
