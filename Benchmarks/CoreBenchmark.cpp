// The core's cost per flow and per event, on the platform that ships.

#include <benchmark/benchmark.h>

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Extension/ProxyTunnelCore/ProxyConnectResponseParser.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringClient.h"
#include "Platform/Linux/LinuxPlatform.h"

namespace ostravel {

// Accesses the provider's internals.
class PacketTunnelProviderTestPeer {
 public:
  static void fillCache(PacketTunnelProvider& provider, std::size_t expired, std::size_t live) {
    provider.bypassCacheQueue_->syncBarrier([&provider, expired, live] {
      auto& cache = provider.bypassCache_;
      constexpr double kBeforeAnyExpiry = -1.0;
      for (std::size_t index = 0; index < expired + live; ++index) {
        const double expiry = index < expired ? 0.0 : 1e12;
        cache.store("/usr/bin/application:192.0.2.1:" + std::to_string(index), kProxied, expiry,
                    kBeforeAnyExpiry);
      }
    });
  }
  static void storeAndWait(PacketTunnelProvider& provider, std::string key, double now) {
    provider.storeDecision(std::move(key), kProxied, now);
    provider.bypassCacheQueue_->sync([] {});
  }

 private:
  static constexpr PacketTunnelProvider::FlowDecision kProxied{
      PacketTunnelProvider::FlowAction::proxyTCP, platform::FlowRule::proxied};
};

namespace {

using platform::ErrorCompletion;

class NoContext final : public platform::ProviderContext {
 public:
  void setTunnelNetworkSettings(platform::TransparentProxyNetworkSettings /*settings*/,
                                ErrorCompletion /*completion*/) override {}
  std::shared_ptr<platform::TCPConnection> createTCPConnection(
      const platform::HostEndpoint& /*endpoint*/, platform::TLSPolicy /*tls*/) override {
    return nullptr;
  }
  std::optional<platform::TunnelProviderProtocol> protocolConfiguration() const override {
    return std::nullopt;
  }
};

platform::Platform& sharedPlatform() {
  static auto& platform =
      *new linuxplatform::LinuxPlatform(linuxplatform::LinuxPlatform::Options{});
  return platform;
}

std::shared_ptr<PacketTunnelProvider> makeProvider() {
  static auto& context = *new NoContext();
  return std::make_shared<PacketTunnelProvider>(sharedPlatform(), context);
}

constexpr std::string_view kApplication = "/usr/lib/firefox-esr/firefox-esr";

void cachedDecision(benchmark::State& state) {
  const auto provider = makeProvider();
  const std::string host = "93.184.216.34";
  provider->decideFlowAction(kApplication, host, false);
  PacketTunnelProviderTestPeer::storeAndWait(*provider, "other", 0.0);
  for (auto _ : state) {
    benchmark::DoNotOptimize(provider->decideFlowAction(kApplication, host, false));
  }
}
BENCHMARK(cachedDecision);

// An uncached decision: the walk over the lists, and storing the result in the cache. As many as
// fit without pruning.
void uncachedDecision(benchmark::State& state) {
  const auto provider = makeProvider();
  std::vector<std::string> hosts;
  for (benchmark::IterationCount index = 0; index < state.max_iterations; ++index) {
    hosts.push_back("host-" + std::to_string(index) + ".example.org");
  }
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(provider->decideFlowAction(kApplication, hosts[next++], true));
  }
}
BENCHMARK(uncachedDecision)->Iterations(2000)->Repetitions(20)->ReportAggregatesOnly(true);

void cacheStoreWithPruning(benchmark::State& state) {
  const auto provider = makeProvider();
  for (auto _ : state) {
    state.PauseTiming();
    PacketTunnelProviderTestPeer::fillCache(*provider, 1500, 501);
    state.ResumeTiming();
    PacketTunnelProviderTestPeer::storeAndWait(*provider, "new", 1.0);
  }
}
// Done by the queue while the caller waits.
BENCHMARK(cacheStoreWithPruning)->UseRealTime();

constexpr std::string_view kAnswer =
    "HTTP/1.1 200 Connection established\r\nVia: 1.1 proxy\r\nDate: Mon, 16 Nov 2026 05:43:35 "
    "GMT\r\n\r\n";

void parseAnswerInOneChunk(benchmark::State& state) {
  const auto bytes = std::as_bytes(std::span(kAnswer));
  for (auto _ : state) {
    ProxyConnectResponseParser parser(16384, sharedPlatform().text());
    benchmark::DoNotOptimize(parser.append(bytes));
  }
}
BENCHMARK(parseAnswerInOneChunk);

void parseAnswerByteByByte(benchmark::State& state) {
  const auto bytes = std::as_bytes(std::span(kAnswer));
  for (auto _ : state) {
    ProxyConnectResponseParser parser(16384, sharedPlatform().text());
    for (std::size_t index = 0; index < bytes.size(); ++index) {
      benchmark::DoNotOptimize(parser.append(bytes.subspan(index, 1)));
    }
  }
}
BENCHMARK(parseAnswerByteByByte);

ProxyTunnelMonitoringEvent makeEvent() {
  return {sharedPlatform().uuidSource(),
          "connect_handshake_succeeded",
          "6F9619FF-8B86-D011-B42D-00CF4FC964FF",
          "info",
          "extension.connect_handshake_succeeded",
          "CONNECT handshake completed",
          ProxyTunnelMonitoringEvent::Metrics{{"elapsed_ms", 1.25}, {"leftover_bytes", 0.0}},
          ProxyTunnelMonitoringEvent::Context{{"app_id", std::string(kApplication)}},
          1763271815.25,
          "2025-11-16T05:43:35Z"};
}

void encodeEvent(benchmark::State& state) {
  const ProxyTunnelMonitoringFrameEncoder encoder;
  const auto event = makeEvent();
  for (auto _ : state) {
    benchmark::DoNotOptimize(encoder.encode(event));
  }
}
BENCHMARK(encodeEvent);

// The time that emit takes its caller; delivery happens elsewhere. In batches, so that the queue
// stays as short as in real use. The CPU column is the caller's.
void emitAsTheCallerSeesIt(benchmark::State& state) {
  constexpr std::size_t kPortion = 64;
  const auto queue = sharedPlatform().makeQueue("benchmark", platform::DispatchQueueKind::serial);
  ProxyTunnelMonitoringClient client(
      sharedPlatform(), "/nowhere", queue, ProxyTunnelMonitoringFrameEncoder(),
      [](const std::string&, std::span<const std::byte>) { return platform::OptionalError(); });
  std::vector<ProxyTunnelMonitoringEvent> events;
  while (state.KeepRunningBatch(kPortion)) {
    state.PauseTiming();
    queue->sync([] {});
    events.assign(kPortion, makeEvent());
    state.ResumeTiming();
    for (auto& event : events) {
      client.emit(std::move(event));
    }
  }
}
BENCHMARK(emitAsTheCallerSeesIt);

}  // namespace
}  // namespace ostravel
