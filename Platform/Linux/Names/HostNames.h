#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Names/BootClock.h"
#include "Platform/Linux/Names/DNSMessage.h"

namespace ostravel::linuxplatform {

// The host names that addresses were looked up under, and whose flows each may name.
//
// A name belongs to the application that looked it up, else to that application's user, else to the
// machine. What belongs to a user may be any of its applications': it counts as the flow's own. If
// neither has a name for the address, the machine's count. In each case there must be exactly one:
// of several names nobody knows which one is meant, and a wrong one is worse than none. Names
// expire with the answers that they came from.
//
// Not learned: loopback, link-local, multicast and unspecified addresses, which no proxy can reach.
// A name that has led both to public and to private addresses of one family names nothing: that is
// how a web page makes a browser connect to the local network (DNS rebinding).
//
// Usable from any thread; nothing waits while the lock is held.
class HostNames {
 public:
  using Clock = BootClock;

  // Months of a desktop's different names fit; some megabytes. When it is full, the user with the
  // most names loses the one that was used least recently.
  static constexpr std::size_t kDefaultCapacity = 20'000;
  // Applications keep addresses for a moment even if the answer forbids it, and long-lived answers
  // do not prove that a later flow was made for that name.
  static constexpr std::chrono::seconds kShortestLife{30};
  static constexpr std::chrono::seconds kLongestLife{3600};

  // Whose flows a name may name.
  class Owner {
   public:
    static Owner machine() { return Owner(std::nullopt, {}); }
    static Owner user(uid_t user) { return Owner(user, {}); }
    // Without an identifier it is the user.
    static Owner application(uid_t user, std::string_view identifier) {
      return Owner(user, identifier);
    }

    friend bool operator==(const Owner&, const Owner&) = default;

   private:
    friend class HostNames;
    Owner(std::optional<uid_t> user, std::string_view identifier);

    std::optional<uid_t> user_;
    std::string key_;
  };

  struct Found {
    std::string name;
    Owner owner;
    // False once the proxy has not been able to resolve it.
    bool isResolvable = true;
    // Of its last address.
    Clock::time_point expiry = {};
  };

  explicit HostNames(std::size_t capacity = kDefaultCapacity) : capacity_(capacity) {}

  // name: one for which isUsableHostName.
  void learn(const Owner& owner, const std::string& name,
             std::span<const ResolvedAddress> addresses, Clock::time_point now);
  void forget(const Owner& owner, const std::string& name);

  // What a flow of the application to this address is called. user: empty if unknown; identifier:
  // likewise.
  std::optional<Found> find(std::optional<uid_t> user, std::string_view identifier,
                            const SocketEndpoint& address, Clock::time_point now);

  // For the rest of its life, the name is found as not resolvable for this user.
  void setUnresolvable(const Found& found, Clock::time_point now);

  // Names that have not been removed yet.
  std::size_t size() const;

 private:
  struct Entry {
    std::string name;
    Owner owner;
    struct Address {
      SocketEndpoint endpoint;
      Clock::time_point expiry;
    };
    std::vector<Address> addresses;
    bool isRebinding = false;
  };
  // Of one user, or of the machine; the most recently used first.
  using Entries = std::list<Entry>;
  using Position = Entries::iterator;

  // The names of one address for one owner.
  struct Names {
    std::vector<Position> positions;
    // There have been too many names to list, and until then it is not known which have expired.
    Clock::time_point crowdedUntil;
  };
  // One that is not known, one, or several.
  enum class Count { none, one, several };
  struct Candidates {
    Count count = Count::none;
    Position position;
  };

  Candidates candidates(const Owner& owner, const SocketEndpoint& address, Clock::time_point now);
  // Those of an application and of its user.
  Candidates ownCandidates(const Owner& application, const Owner& user,
                           const SocketEndpoint& address, Clock::time_point now);
  // True if the addresses that the owners know of the name belong to networks that no honest name
  // joins.
  bool isRebinding(const std::string& name, std::initializer_list<const Owner*> owners,
                   Clock::time_point now) const;
  Position entry(const Owner& owner, const std::string& name, Clock::time_point now);
  const Entry* known(const Owner& owner, const std::string& name) const;
  void add(Position position, const SocketEndpoint& address, Clock::time_point expiry,
           Clock::time_point now);
  // From the list of the address.
  void unlink(Position position, const SocketEndpoint& address);
  void remove(Position position);
  void evict();

  const std::size_t capacity_;
  mutable std::mutex lock_;
  // All guarded by lock_.
  std::map<std::optional<uid_t>, Entries> users_;
  std::unordered_map<std::string, Position> byName_;
  std::unordered_map<std::string, Names> byAddress_;
  // Names that the proxy cannot resolve, and until when.
  std::map<std::pair<std::optional<uid_t>, std::string>, Clock::time_point> unresolvable_;
};

}  // namespace ostravel::linuxplatform
