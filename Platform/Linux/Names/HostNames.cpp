#include "Platform/Linux/Names/HostNames.h"

#include <algorithm>
#include <utility>

namespace ostravel::linuxplatform {

namespace {

// Names with more addresses belong to content networks, whose answers contain a few at a time.
constexpr std::size_t kAddressesPerName = 32;
// Two names are already ambiguous; further ones are kept because each expires separately.
constexpr std::size_t kNamesPerAddress = 8;

// Occurs in no name or address.
constexpr char kSeparator = '\0';

std::string keyOf(const std::string& owner, std::string_view name) {
  return (owner + kSeparator).append(name);
}

std::string keyOf(const std::string& owner, const SocketEndpoint& address) {
  const std::string_view bytes(reinterpret_cast<const char*>(address.address.data()),
                               address.address.size());
  std::string key;
  key.reserve(owner.size() + 2 + bytes.size());
  key.append(owner).push_back(kSeparator);
  key.push_back(address.family == AddressFamily::ipv4 ? '4' : '6');
  key.append(bytes);
  return key;
}

bool isReachable(const SocketEndpoint& endpoint) {
  const auto& bytes = endpoint.address;
  if (endpoint.family == AddressFamily::ipv4) {
    const bool isLinkLocal = bytes[0] == 169 && bytes[1] == 254;
    // 0.0.0.0/8, 127.0.0.0/8, and from 224.0.0.0 on (RFC 6890, RFC 5771)
    return bytes[0] != 0 && bytes[0] != 127 && bytes[0] < 224 && !isLinkLocal;
  }
  // ::/96 contains the unspecified and the loopback address.
  const bool isLow =
      std::all_of(bytes.begin(), bytes.begin() + 10, [](auto byte) { return byte == 0; });
  const bool isLinkLocal = bytes[0] == 0xFE && (bytes[1] & 0xC0U) == 0x80;
  return !isLow && !isLinkLocal && bytes[0] != 0xFF;
}

// Networks of a home, a company or a provider (RFC 1918, RFC 6598, RFC 4193).
bool isPrivate(const SocketEndpoint& endpoint) {
  const auto& bytes = endpoint.address;
  if (endpoint.family == AddressFamily::ipv6) {
    return (bytes[0] & 0xFEU) == 0xFC;
  }
  return bytes[0] == 10 || (bytes[0] == 172 && (bytes[1] & 0xF0U) == 16) ||
         (bytes[0] == 192 && bytes[1] == 168) || (bytes[0] == 100 && (bytes[1] & 0xC0U) == 64);
}

SocketEndpoint withoutPort(SocketEndpoint endpoint) {
  endpoint.port = 0;
  return endpoint;
}

}  // namespace

HostNames::Owner::Owner(std::optional<uid_t> user, std::string_view identifier) : user_(user) {
  if (user) {
    const std::string number = std::to_string(*user);
    key_.reserve(number.size() + 1 + identifier.size());
    key_.append(number).append(1, kSeparator).append(identifier);
  }
}

void HostNames::learn(const Owner& owner, const std::string& name,
                      std::span<const ResolvedAddress> addresses, Clock::time_point now) {
  if (std::none_of(addresses.begin(), addresses.end(),
                   [](const ResolvedAddress& resolved) { return isReachable(resolved.address); })) {
    return;
  }
  const std::lock_guard guard(lock_);
  const Position position = entry(owner, name, now);
  for (const ResolvedAddress& resolved : addresses) {
    if (isReachable(resolved.address)) {
      const auto life = std::clamp(resolved.timeToLive, kShortestLife, kLongestLife);
      add(position, withoutPort(resolved.address), now + life, now);
    }
  }
  position->isRebinding = position->isRebinding || isRebinding(name, {&owner}, now);
  evict();
}

void HostNames::forget(const Owner& owner, const std::string& name) {
  const std::lock_guard guard(lock_);
  const auto found = byName_.find(keyOf(owner.key_, name));
  if (found != byName_.end()) {
    remove(found->second);
  }
}

std::optional<HostNames::Found> HostNames::find(std::optional<uid_t> user,
                                                std::string_view identifier,
                                                const SocketEndpoint& address,
                                                Clock::time_point now) {
  const std::lock_guard guard(lock_);
  if (byAddress_.empty()) {
    return std::nullopt;
  }
  const Owner machine = Owner::machine();
  const Owner application = user ? Owner::application(*user, identifier) : machine;
  const Owner shared = user ? Owner::user(*user) : machine;
  Candidates found = ownCandidates(application, shared, withoutPort(address), now);
  if (found.count == Count::none) {
    found = candidates(machine, withoutPort(address), now);
  }
  if (found.count != Count::one || found.position->isRebinding ||
      isRebinding(found.position->name, {&application, &shared}, now)) {
    return std::nullopt;
  }
  const Entry& entry = *found.position;
  Entries& entries = users_[entry.owner.user_];
  entries.splice(entries.begin(), entries, found.position);
  const auto unresolvable = unresolvable_.find({entry.owner.user_, entry.name});
  const auto last = std::max_element(
      entry.addresses.begin(), entry.addresses.end(),
      [](const Entry::Address& a, const Entry::Address& b) { return a.expiry < b.expiry; });
  return Found{entry.name, entry.owner,
               unresolvable == unresolvable_.end() || unresolvable->second <= now, last->expiry};
}

HostNames::Candidates HostNames::ownCandidates(const Owner& application, const Owner& user,
                                               const SocketEndpoint& address,
                                               Clock::time_point now) {
  Candidates own = candidates(application, address, now);
  if (application == user) {
    return own;
  }
  const Candidates shared = candidates(user, address, now);
  if (own.count == Count::none) {
    return shared;
  }
  if (shared.count == Count::several || (own.count == Count::one && shared.count == Count::one &&
                                         own.position->name != shared.position->name)) {
    own.count = Count::several;
  }
  return own;
}

void HostNames::setUnresolvable(const Found& found, Clock::time_point now) {
  const std::lock_guard guard(lock_);
  if (unresolvable_.size() >= capacity_) {
    std::erase_if(unresolvable_, [now](const auto& each) { return each.second <= now; });
  }
  if (unresolvable_.size() < capacity_) {
    unresolvable_.insert_or_assign({found.owner.user_, found.name}, found.expiry);
  }
}

std::size_t HostNames::size() const {
  const std::lock_guard guard(lock_);
  return byName_.size();
}

HostNames::Candidates HostNames::candidates(const Owner& owner, const SocketEndpoint& address,
                                            Clock::time_point now) {
  const auto found = byAddress_.find(keyOf(owner.key_, address));
  if (found == byAddress_.end()) {
    return {};
  }
  Candidates result;
  std::vector<Position> expired;
  for (const Position position : found->second.positions) {
    const auto known =
        std::find_if(position->addresses.begin(), position->addresses.end(),
                     [&address](const Entry::Address& each) { return each.endpoint == address; });
    if (known->expiry <= now) {
      expired.push_back(position);
      continue;
    }
    result.count = result.count == Count::none ? Count::one : Count::several;
    result.position = position;
  }
  if (found->second.crowdedUntil > now) {
    result.count = Count::several;
  }
  for (const Position position : expired) {
    unlink(position, address);
    std::erase_if(position->addresses,
                  [&address](const Entry::Address& each) { return each.endpoint == address; });
    if (position->addresses.empty()) {
      remove(position);
    }
  }
  return result;
}

HostNames::Position HostNames::entry(const Owner& owner, const std::string& name,
                                     Clock::time_point now) {
  Entries& entries = users_[owner.user_];
  const std::string key = keyOf(owner.key_, name);
  const auto found = byName_.find(key);
  if (found != byName_.end()) {
    Entry& known = *found->second;
    const bool isAlive =
        std::any_of(known.addresses.begin(), known.addresses.end(),
                    [now](const Entry::Address& each) { return each.expiry > now; });
    // The finding expires with the name.
    known.isRebinding = known.isRebinding && isAlive;
    entries.splice(entries.begin(), entries, found->second);
    return found->second;
  }
  entries.push_front({name, owner, {}});
  byName_.emplace(key, entries.begin());
  return entries.begin();
}

void HostNames::add(Position position, const SocketEndpoint& address, Clock::time_point expiry,
                    Clock::time_point now) {
  auto& addresses = position->addresses;
  const auto known =
      std::find_if(addresses.begin(), addresses.end(),
                   [&address](const Entry::Address& each) { return each.endpoint == address; });
  if (known != addresses.end()) {
    known->expiry = std::max(known->expiry, expiry);
  } else {
    if (addresses.size() == kAddressesPerName) {
      const auto first = std::min_element(
          addresses.begin(), addresses.end(),
          [](const Entry::Address& a, const Entry::Address& b) { return a.expiry < b.expiry; });
      unlink(position, first->endpoint);
      addresses.erase(first);
    }
    addresses.push_back({address, expiry});
  }
  Names& names = byAddress_[keyOf(position->owner.key_, address)];
  if (std::find(names.positions.begin(), names.positions.end(), position) !=
      names.positions.end()) {
    return;
  }
  if (names.positions.size() == kNamesPerAddress) {
    static_cast<void>(candidates(position->owner, address, now));
  }
  // Expired names have been removed; the list itself may have been removed as well.
  Names& left = byAddress_[keyOf(position->owner.key_, address)];
  if (left.positions.size() < kNamesPerAddress) {
    left.positions.push_back(position);
  } else {
    left.crowdedUntil = std::max(left.crowdedUntil, expiry);
  }
}

const HostNames::Entry* HostNames::known(const Owner& owner, const std::string& name) const {
  const auto found = byName_.find(keyOf(owner.key_, name));
  return found != byName_.end() ? &*found->second : nullptr;
}

bool HostNames::isRebinding(const std::string& name, std::initializer_list<const Owner*> owners,
                            Clock::time_point now) const {
  for (const AddressFamily family : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    bool hasPrivate = false;
    bool hasPublic = false;
    for (const Owner* const owner : owners) {
      const Entry* const entry = known(*owner, name);
      if (entry == nullptr) {
        continue;
      }
      for (const Entry::Address& address : entry->addresses) {
        if (address.endpoint.family == family && address.expiry > now) {
          (isPrivate(address.endpoint) ? hasPrivate : hasPublic) = true;
        }
      }
    }
    if (hasPrivate && hasPublic) {
      return true;
    }
  }
  return false;
}

void HostNames::unlink(Position position, const SocketEndpoint& address) {
  const auto found = byAddress_.find(keyOf(position->owner.key_, address));
  if (found == byAddress_.end()) {
    return;
  }
  std::erase(found->second.positions, position);
  if (found->second.positions.empty()) {
    byAddress_.erase(found);
  }
}

void HostNames::remove(Position position) {
  for (const Entry::Address& each : position->addresses) {
    unlink(position, each.endpoint);
  }
  byName_.erase(keyOf(position->owner.key_, position->name));
  const auto user = users_.find(position->owner.user_);
  user->second.erase(position);
  if (user->second.empty()) {
    users_.erase(user);
  }
}

void HostNames::evict() {
  while (byName_.size() > capacity_) {
    const auto most = std::max_element(
        users_.begin(), users_.end(),
        [](const auto& a, const auto& b) { return a.second.size() < b.second.size(); });
    remove(std::prev(most->second.end()));
  }
}

}  // namespace ostravel::linuxplatform
