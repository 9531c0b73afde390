#include "Tests/Platform/Linux/Support/SYNCapture.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "Platform/Linux/Kernel/PacketParser.h"

namespace ostravel::testing {

namespace {

bool isSYN(std::span<const std::byte> packet) {
  constexpr std::size_t kIPv6Header = 40;
  constexpr std::size_t kFlags = 13;
  constexpr std::byte kSYNAndACK{0x12};
  constexpr std::byte kSYN{0x02};
  constexpr std::byte kHeaderWords{0x0f};
  const bool isIPv4 = (packet[0] >> 4U) == std::byte{4};
  const auto header =
      isIPv4 ? 4 * std::to_integer<std::size_t>(packet[0] & kHeaderWords) : kIPv6Header;
  return header + kFlags < packet.size() && (packet[header + kFlags] & kSYNAndACK) == kSYN;
}

}  // namespace

SYNCapture::SYNCapture()
    : socket_(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_ALL))) {
  EXPECT_TRUE(socket_.isOpen());
}

std::uint32_t SYNCapture::sequenceOf(const linuxplatform::FlowTuple& flow) {
  readPackets();
  const auto found = sequences_.find(flow);
  EXPECT_NE(found, sequences_.end());
  return found == sequences_.end() ? 0 : found->second;
}

std::optional<linuxplatform::FlowTuple> SYNCapture::waitForFlowFrom(
    const linuxplatform::SocketEndpoint& source) {
  constexpr int kLimitMilliseconds = 60'000;
  pollfd waited{socket_.get(), POLLIN, 0};
  do {
    readPackets();
    for (const auto& [flow, sequence] : sequences_) {
      if (flow.source.family == source.family && flow.source.address == source.address) {
        return flow;
      }
    }
  } while (::poll(&waited, 1, kLimitMilliseconds) > 0);
  return std::nullopt;
}

void SYNCapture::readPackets() {
  std::array<std::byte, 256> bytes;
  while (true) {
    const auto received = ::recv(socket_.get(), bytes.data(), bytes.size(), MSG_TRUNC);
    if (received <= 0) {
      return;
    }
    const auto size = std::min(bytes.size(), static_cast<std::size_t>(received));
    const std::span<const std::byte> packet(bytes.data(), size);
    const auto first = linuxplatform::parseFirstPacket(packet);
    if (first && first->tuple.protocol == linuxplatform::TransportProtocol::tcp && isSYN(packet)) {
      sequences_.insert_or_assign(first->tuple, first->initialSequence);
    }
  }
}

}  // namespace ostravel::testing
