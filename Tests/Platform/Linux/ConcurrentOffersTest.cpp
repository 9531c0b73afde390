// The core as the platform uses it when flows are offered by several threads at the same time.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Platform/Interface/SystemLimits.h"
#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Relay/LinuxTCPFlow.h"
#include "Platform/Linux/Relay/LinuxUDPFlow.h"
#include "Tests/Platform/Linux/Relay/Support/RecordedPacket.h"
#include "Tests/Platform/Linux/Support/RecordOf.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform::test {
namespace {

constexpr int kThreads = 4;
constexpr int kOffersPerThread = 120;

// Establishes every tunnel, and then sends nothing more.
class EstablishingProxy {
 public:
  EstablishingProxy() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    ::setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const KernelAddress address(*parseAddressLiteral(
        {std::string(platform::limits::kProxyHost), std::to_string(platform::limits::kProxyPort)}));
    EXPECT_EQ(::bind(listener_.get(), address.get(), address.size), 0);
    EXPECT_EQ(::listen(listener_.get(), 1024), 0);
    thread_ = std::thread([this] { serve(); });
  }
  EstablishingProxy(const EstablishingProxy&) = delete;
  EstablishingProxy& operator=(const EstablishingProxy&) = delete;
  ~EstablishingProxy() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }

 private:
  void serve() {
    constexpr std::string_view kAnswer = "HTTP/1.1 200 OK\r\n\r\n";
    while (true) {
      FileDescriptor connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!connection.isOpen()) {
        return;
      }
      std::array<char, 4096> request{};
      // A probe sends nothing.
      if (::recv(connection.get(), request.data(), request.size(), 0) > 0) {
        ::send(connection.get(), kAnswer.data(), kAnswer.size(), MSG_NOSIGNAL);
        connections_.push_back(std::move(connection));
      }
    }
  }

  FileDescriptor listener_;
  std::vector<FileDescriptor> connections_;
  std::thread thread_;
};

class Context final : public platform::ProviderContext {
 public:
  void setTunnelNetworkSettings(platform::TransparentProxyNetworkSettings /*settings*/,
                                platform::ErrorCompletion completion) override {
    completion(std::nullopt);
  }
  std::shared_ptr<platform::TCPConnection> createTCPConnection(
      const platform::HostEndpoint& endpoint, platform::TLSPolicy /*tls*/) override {
    return EventLoopGroup::connect(endpoint);
  }
  std::optional<platform::TunnelProviderProtocol> protocolConfiguration() const override {
    return std::nullopt;
  }
};

class ConcurrentOffersTest : public ::testing::Test {
 protected:
  struct Offer {
    std::shared_ptr<platform::AppProxyFlow> flow;
    std::shared_ptr<Verdict> verdict = std::make_shared<Verdict>();
    bool isExpectedToBeTaken = true;
    bool isTaken = false;
  };

  // Applications and destinations that the decision cache knows and others, TCP and UDP.
  Offer makeOffer(int number) {
    Offer offer;
    auto packet = std::make_unique<RecordedPacket>(offer.verdict);
    const std::string host = "203.0.113." + std::to_string(number % 200);
    const auto destination = *parseAddressLiteral({host, "443"});
    const auto source = *parseAddressLiteral({"127.0.0.1", std::to_string(10'000 + number)});
    if (number % 5 == 0) {
      offer.flow =
          std::make_shared<LinuxUDPFlow>(FlowTuple{TransportProtocol::udp, source, destination},
                                         "com.example.udp", std::move(packet));
      return offer;
    }
    offer.isExpectedToBeTaken = number % 7 != 0;
    offer.flow = std::make_shared<LinuxTCPFlow>(
        loops_.loop(static_cast<unsigned>(number) % loops_.size()), source,
        recordOf(offer.isExpectedToBeTaken ? "com.example." + std::to_string(number % 50)
                                           : "com.mullvad.vpn",
                 destination),
        std::move(packet));
    return offer;
  }

  LinuxPlatform platform_{{}};
  DescriptorBudget descriptors_{100'000};
  EventLoopGroup loops_{descriptors_, 2};
  Context context_;
};

TEST_F(ConcurrentOffersTest, EachIsDecidedOnceAndLeavesNothingOpen) {
  const std::size_t idle = descriptors_.inUse();
  const EstablishingProxy proxy;
  auto provider = std::make_shared<PacketTunnelProvider>(platform_, context_);
  provider->startProxy(std::nullopt, [](const platform::OptionalError& /*error*/) {});
  ASSERT_TRUE(testing::waitUntil([&] { return provider->isGateOpen() == true; }));

  std::vector<Offer> offers;
  for (int number = 0; number < kThreads * kOffersPerThread; ++number) {
    offers.push_back(makeOffer(number));
  }
  std::vector<std::thread> threads;
  for (std::size_t first = 0; first < kThreads; ++first) {
    threads.emplace_back([&offers, &provider, first] {
      for (std::size_t number = first; number < offers.size(); number += kThreads) {
        Offer& offer = offers[number];
        offer.isTaken = provider->handleNewFlow(std::move(offer.flow));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  for (const Offer& offer : offers) {
    EXPECT_EQ(offer.isTaken, offer.isExpectedToBeTaken);
    EXPECT_NE(offer.verdict->wait(), "");
  }
  // The released connections never arrive, so that their tunnels end.
  EXPECT_TRUE(testing::waitUntil([&] { return descriptors_.inUse() == idle; }));
  std::atomic<bool> isStopped = false;
  provider->stopProxy(platform::ProviderStopReason::userInitiated,
                      [&isStopped] { isStopped = true; });
  EXPECT_TRUE(isStopped);
  provider.reset();
  loops_.stop();
  EXPECT_TRUE(platform_.drain(std::chrono::steady_clock::now() + std::chrono::seconds(20)));
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
