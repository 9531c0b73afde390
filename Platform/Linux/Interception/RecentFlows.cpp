#include "Platform/Linux/Interception/RecentFlows.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace ostravel::linuxplatform {

namespace {

using namespace std::chrono_literals;

// Longer than all retransmissions of a SYN together (tcp(7), tcp_syn_retries: 127 s).
constexpr auto kTCPLifetime = 130s;
// As long as the kernel treats unanswered datagrams as one flow (conntrack: 30 s).
constexpr auto kUDPLifetime = 30s;

}  // namespace

// Computed several times for each flow, so it is cheaper than a general hash of bytes.
std::size_t RecentFlows::Hash::operator()(const FirstPacket& packet) const noexcept {
  constexpr std::uint64_t kMultiplier = 0x9e3779b97f4a7c15U;
  constexpr unsigned kPortBits = 16;
  std::uint64_t hash = packet.initialSequence;
  const auto mix = [&hash](std::uint64_t word) {
    hash = (hash ^ word) * kMultiplier;
    hash ^= hash >> 32U;
  };
  for (const SocketEndpoint* end : {&packet.tuple.source, &packet.tuple.destination}) {
    std::array<std::uint64_t, 2> address{};
    static_assert(sizeof address == sizeof end->address);
    std::memcpy(address.data(), end->address.data(), sizeof address);
    mix(address[0]);
    mix(address[1]);
  }
  mix(std::uint64_t{packet.tuple.source.port} << kPortBits | packet.tuple.destination.port);
  return hash;
}

void RecentFlows::remember(const FirstPacket& packet, TimePoint now) {
  const bool isTCP = packet.tuple.protocol == TransportProtocol::tcp;
  const TimePoint expiry = now + (isTCP ? std::chrono::seconds(kTCPLifetime) : kUDPLifetime);
  expiries_.insert_or_assign(packet, expiry);
  inOrder_.push_back({packet, expiry});
  while (inOrder_.size() > capacity_ || inOrder_.front().expiry <= now) {
    const Entry& oldest = inOrder_.front();
    const auto found = expiries_.find(oldest.packet);
    // Keep a flow that has been remembered again in the meantime.
    if (found != expiries_.end() && found->second == oldest.expiry) {
      expiries_.erase(found);
    }
    inOrder_.pop_front();
  }
}

bool RecentFlows::contains(const FirstPacket& packet, TimePoint now) const {
  const auto found = expiries_.find(packet);
  return found != expiries_.end() && found->second > now;
}

}  // namespace ostravel::linuxplatform
