#include "Platform/Linux/Tracing/ConnectTable.h"

#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <type_traits>

namespace ostravel::linuxplatform {

namespace {

using Slot = ConnectTable::Slot;

// Must match ConnectTable.bpf.c.
std::uint64_t mix(std::uint64_t hash, std::uint64_t value) {
  constexpr std::uint64_t kMultiplier = 0x9e3779b97f4a7c15;
  hash = (hash ^ value) * kMultiplier;
  return hash ^ (hash >> 32U);
}

// The kernel may write at any time, so every access is atomic and ordered.
template <typename Number>
Number load(const Number& shared) {
  // This version of the language has no std::atomic_ref of a constant.
  return std::atomic_ref<Number>(const_cast<Number&>(shared)).load(std::memory_order_acquire);
}

// Empty if the slot is being written.
std::optional<Slot> copyOf(const Slot& shared) {
  static_assert(std::is_trivially_copyable_v<Slot>);
  using Words = std::array<std::uint64_t, sizeof(Slot) / sizeof(std::uint64_t)>;
  const auto* const words = reinterpret_cast<const std::uint64_t*>(&shared);
  Words copied{};
  for (std::size_t i = 0; i < copied.size(); ++i) {
    copied.at(i) = load(words[i]);
  }
  Slot slot{};
  std::memcpy(&slot, copied.data(), sizeof slot);
  if (slot.sequence % 2 != 0 || load(shared.sequence) != slot.sequence) {
    return std::nullopt;
  }
  return slot;
}

std::array<std::uint64_t, 2> wordsOf(const SocketEndpoint& endpoint) {
  std::array<std::uint64_t, 2> words{};
  std::memcpy(words.data(), endpoint.address.data(), sizeof words);
  return words;
}

bool isAbout(const Slot& slot, const FlowTuple& flow, std::uint32_t initialSequence) {
  const std::uint32_t family = flow.destination.family == AddressFamily::ipv4 ? AF_INET : AF_INET6;
  return slot.initialSequence == initialSequence && slot.sourcePort == flow.source.port &&
         slot.destinationPort == flow.destination.port && slot.family == family &&
         slot.source == wordsOf(flow.source) && slot.destination == wordsOf(flow.destination);
}

PublishedConnect connectIn(const Slot& slot) {
  return {.record = slot.record.inUserUnits(),
          .socketUser = slot.socketUser,
          .boundInterface = slot.boundInterface,
          .cookie = slot.cookie,
          .cgroup = slot.cgroup,
          .place = slot.place};
}

}  // namespace

std::optional<PublishedConnect> ConnectTable::find(const FlowTuple& flow,
                                                   std::uint32_t initialSequence) const {
  if (flow.protocol != TransportProtocol::tcp) {
    return std::nullopt;
  }
  for (const Slot& shared : sets_[setOf(flow)]) {
    // Test this first: most slots belong to other packets, and one access shows it.
    if (load(shared.initialSequence) != initialSequence) {
      continue;
    }
    const auto slot = copyOf(shared);
    if (slot && isAbout(*slot, flow, initialSequence)) {
      return isUnchanged(*slot) ? std::optional(connectIn(*slot)) : std::nullopt;
    }
  }
  return std::nullopt;
}

std::optional<PublishedConnect> ConnectTable::findSocket(std::uint64_t cookie) const {
  for (std::size_t i = 0; i < kSets; ++i) {
    for (const Slot& shared : sets_[i]) {
      const auto slot = copyOf(shared);
      if (slot && slot->sequence != 0 && slot->cookie == cookie) {
        return connectIn(*slot);
      }
    }
  }
  return std::nullopt;
}

std::size_t ConnectTable::setOf(const FlowTuple& flow) const {
  const auto source = wordsOf(flow.source);
  const auto destination = wordsOf(flow.destination);
  constexpr unsigned kPortBits = 16;
  std::uint64_t hash = mix(state_->seed, source[0] ^ source[1]);
  hash = mix(hash, destination[0] ^ destination[1]);
  hash = mix(hash, std::uint64_t{flow.source.port} << kPortBits | flow.destination.port);
  return hash % kSets;
}

bool ConnectTable::isUnchanged(const Slot& slot) const {
  return load(state_->programChanges.at(slot.record.process % kProgramCounters)) ==
         slot.programChanges;
}

}  // namespace ostravel::linuxplatform
