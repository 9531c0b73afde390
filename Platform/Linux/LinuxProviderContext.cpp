#include "Platform/Linux/LinuxProviderContext.h"

#include <exception>
#include <system_error>
#include <utility>

#include "Platform/Interface/ProviderError.h"
#include "Platform/Linux/Relay/ConnectByName.h"
#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/FallbackConnection.h"

namespace ostravel::linuxplatform {

using platform::OptionalError;

LinuxProviderContext::LinuxProviderContext(
    platform::Platform& platform, Interceptor::Environment environment,
    std::optional<platform::ProviderConfiguration> configuration)
    : environment_(std::move(environment)),
      configuration_(std::move(configuration)),
      log_(platform.makeLog(std::string(platform::kFallbackLogSubsystem),
                            std::string(platform::kLogCategory))),
      settingsQueue_(platform.makeQueue("com.ostravel.networkSettings",
                                        platform::DispatchQueueKind::serial)) {}

LinuxProviderContext::~LinuxProviderContext() = default;

void LinuxProviderContext::setProvider(std::weak_ptr<platform::TransparentProxyProvider> provider) {
  provider_ = std::move(provider);
}

bool LinuxProviderContext::reloadRegistrations() {
  const std::lock_guard guard(lock_);
  return interceptor_ && interceptor_->reloadRegistrations();
}

std::optional<Interceptor::Inspection> LinuxProviderContext::inspect(
    std::optional<pid_t> process, std::optional<std::string> executable) {
  std::future<Interceptor::Inspection> inspection;
  {
    const std::lock_guard guard(lock_);
    if (!interceptor_) {
      return std::nullopt;
    }
    inspection = interceptor_->inspect(process, std::move(executable));
  }
  if (inspection.wait_for(kInspectionTimeout) != std::future_status::ready) {
    return std::nullopt;
  }
  return inspection.get();
}

void LinuxProviderContext::stopInterception() {
  const std::lock_guard guard(lock_);
  isStopped_ = true;
  isIntercepting_ = false;
  interceptor_.reset();
}

void LinuxProviderContext::setTunnelNetworkSettings(
    platform::TransparentProxyNetworkSettings settings, platform::ErrorCompletion completion) {
  settingsQueue_->async([this, settings = std::move(settings), completion = std::move(completion)] {
    completion(tryToStartInterception(settings));
  });
}

// No exception crosses the seam.
OptionalError LinuxProviderContext::tryToStartInterception(
    const platform::TransparentProxyNetworkSettings& settings) {
  try {
    return startInterception(settings);
  } catch (const std::system_error& failure) {
    return platform::posixError(failure.code().value(), failure.what());
  } catch (const std::exception& failure) {
    return platform::providerError(platform::kInterceptionFailedCode, failure.what());
  }
}

OptionalError LinuxProviderContext::startInterception(
    const platform::TransparentProxyNetworkSettings& settings) {
  const std::lock_guard guard(lock_);
  interceptor_.reset();
  if (isStopped_) {
    return platform::providerError(platform::kStoppingCode, "the extension is being stopped");
  }
  auto started =
      Interceptor::start(settings, log_, environment_,
                         [weakProvider = provider_](std::shared_ptr<platform::AppProxyFlow> flow) {
                           const auto provider = weakProvider.lock();
                           return provider && provider->handleNewFlow(std::move(flow));
                         });
  if (!started) {
    return std::move(started).error();
  }
  interceptor_ = *std::move(started);
  isIntercepting_ = true;
  return std::nullopt;
}

std::shared_ptr<platform::TCPConnection> LinuxProviderContext::createTCPConnection(
    const platform::HostEndpoint& endpoint, platform::TLSPolicy /*tls*/) {
  // The local proxy speaks plain HTTP, so TLS is never requested.
  const ConnectByName* const byName = ConnectByName::current();
  EventLoop* const loop = EventLoop::current();
  if (byName == nullptr || loop == nullptr) {
    return environment_.loops.connect(endpoint);
  }
  return FallbackConnection::connect(*loop, *byName, [loop, user = loop->servedUser(), endpoint] {
    const EventLoop::Service service(*loop, user);
    return EventLoopGroup::connect(endpoint);
  });
}

std::optional<platform::TunnelProviderProtocol> LinuxProviderContext::protocolConfiguration()
    const {
  return platform::TunnelProviderProtocol{configuration_};
}

}  // namespace ostravel::linuxplatform
