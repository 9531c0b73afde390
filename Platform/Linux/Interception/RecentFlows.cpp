#include "Platform/Linux/Interception/RecentFlows.h"

namespace ostravel::linuxplatform {

namespace {

using namespace std::chrono_literals;

// Longer than all retransmissions of a SYN together (tcp(7), tcp_syn_retries: 127 s).
constexpr auto kTCPLifetime = 130s;
// As long as the kernel treats unanswered datagrams as one flow (conntrack: 30 s).
constexpr auto kUDPLifetime = 30s;

}  // namespace

std::size_t RecentFlows::Hash::operator()(const FirstPacket& packet) const noexcept {
  return FlowTupleHash()(packet.tuple) + packet.initialSequence;
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
