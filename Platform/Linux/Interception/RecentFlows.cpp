#include "Platform/Linux/Interception/RecentFlows.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <random>
#include <string_view>
#include <utility>

namespace ostravel::linuxplatform {

namespace {

using namespace std::chrono_literals;

// Longer than all retransmissions of a SYN together (tcp(7), tcp_syn_retries: 127 s).
constexpr std::chrono::seconds kTCPLifetime = 130s;
// As long as the kernel treats unanswered datagrams as one flow (conntrack: 30 s).
constexpr std::chrono::seconds kUDPLifetime = 30s;

constexpr std::size_t kSmallestTable = 64;

std::uint64_t randomNumber() {
  std::random_device device;
  return std::uint64_t{device()} << 32U | device();
}

}  // namespace

RecentFlows::RecentFlows(std::size_t capacity) : capacity_(capacity), secret_(randomNumber()) {}

RecentFlows::Fingerprint RecentFlows::fingerprintOf(const FirstPacket& packet) const {
  const FlowTuple& tuple = packet.tuple;
  std::array<char, sizeof packet + sizeof secret_> bytes{};
  std::size_t size = 0;
  const auto append = [&bytes, &size](const void* value, std::size_t count) {
    std::memcpy(bytes.data() + size, value, count);
    size += count;
  };
  for (const SocketEndpoint* const end : {&tuple.source, &tuple.destination}) {
    append(end->address.data(), end->address.size());
    append(&end->port, sizeof end->port);
    append(&end->family, sizeof end->family);
  }
  append(&secret_, sizeof secret_);
  append(&tuple.protocol, sizeof tuple.protocol);
  append(&packet.initialSequence, sizeof packet.initialSequence);
  static_assert(sizeof(std::size_t) == sizeof(Fingerprint));
  return std::hash<std::string_view>{}(std::string_view(bytes.data(), size));
}

RecentFlows::Ticks RecentFlows::ticksAt(TimePoint time) const {
  return std::chrono::duration_cast<Ticks>(time - *start_);
}

void RecentFlows::remember(const FirstPacket& packet, TimePoint now) {
  if (!start_) {
    start_ = now;
  }
  const bool isTCP = packet.tuple.protocol == TransportProtocol::tcp;
  const Fingerprint fingerprint = fingerprintOf(packet);
  while (!inOrder_.empty() &&
         (inOrder_.size() >= capacity_ || inOrder_.front().expiry <= ticksAt(now))) {
    forgetOldest();
  }
  makeRoom();
  const std::size_t index = (first_ - 1U + inOrder_.size()) % kLastNumber;
  inOrder_.push_back({static_cast<std::uint32_t>(fingerprint >> 32U),
                      static_cast<std::uint32_t>(fingerprint),
                      ticksAt(now + (isTCP ? kTCPLifetime : kUDPLifetime))});
  Number& latest = table_[find(fingerprint)];
  if (latest == kNoEntry) {
    ++count_;
  }
  latest = static_cast<Number>(index + 1);
}

bool RecentFlows::contains(const FirstPacket& packet, TimePoint now) const {
  if (table_.empty()) {
    return false;
  }
  const Number latest = table_[find(fingerprintOf(packet))];
  return latest != kNoEntry && entryOf(latest).expiry > ticksAt(now);
}

const RecentFlows::Entry& RecentFlows::entryOf(Number number) const {
  const bool isRenumbered = number < first_;
  return inOrder_[number - first_ + (isRenumbered ? std::size_t{kLastNumber} : 0)];
}

std::size_t RecentFlows::find(Fingerprint fingerprint) const {
  std::size_t place = homeOf(fingerprint);
  while (table_[place] != kNoEntry && entryOf(table_[place]).fingerprint() != fingerprint) {
    place = next(place);
  }
  return place;
}

void RecentFlows::makeRoom() {
  if (count_ + 1 <= table_.size() / 4 * 3) {
    return;
  }
  const std::vector<Number> before =
      std::exchange(table_, std::vector<Number>(std::max(kSmallestTable, 2 * table_.size())));
  for (const Number number : before) {
    if (number != kNoEntry) {
      table_[find(entryOf(number).fingerprint())] = number;
    }
  }
}

void RecentFlows::forgetOldest() {
  const std::size_t place = find(inOrder_.front().fingerprint());
  // A flow that has been remembered again in the meantime has a later entry.
  if (table_[place] == first_) {
    erase(place);
  }
  inOrder_.pop_front();
  first_ = first_ == kLastNumber ? Number{1} : static_cast<Number>(first_ + 1);
}

// Moves up those that were placed further on because this place was taken.
void RecentFlows::erase(std::size_t place) {
  table_[place] = kNoEntry;
  --count_;
  for (std::size_t later = next(place); table_[later] != kNoEntry; later = next(later)) {
    const Number number = std::exchange(table_[later], kNoEntry);
    table_[find(entryOf(number).fingerprint())] = number;
  }
}

}  // namespace ostravel::linuxplatform
