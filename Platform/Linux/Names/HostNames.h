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

// The host names under which addresses were looked up, and the owners whose flows each name applies
// to.
//
// A name belongs to the application that looked it up, or to its user or the machine if the
// application is unknown. A flow uses the names of its application and its user together; if these
// have none for the address, those of the machine. There must be exactly one: several are
// ambiguous, and a wrong name is worse than none. Names expire with the answers that they came
// from.
//
// Not learned: loopback, link-local, multicast and unspecified addresses, which no proxy can reach.
// Not used: a name with both public and private addresses of one family, with which a web page can
// make a browser connect to the local network (DNS rebinding).
//
// Usable from any thread; the lock is never held while waiting.
class HostNames {
 public:
  using Clock = BootClock;

  // Months of a desktop's names; a few megabytes. When it is full, the least recently used name of
  // the user with the most names is dropped.
  static constexpr std::size_t kDefaultCapacity = 20'000;
  // Bounds on the life of a name: applications use addresses for a moment even if the answer
  // forbids caching, and an old answer does not prove that a new flow was made for that name.
  static constexpr std::chrono::seconds kShortestLife{30};
  static constexpr std::chrono::seconds kLongestLife{3600};

  // The owner of a name.
  class Owner {
   public:
    static Owner machine() { return Owner(std::nullopt, {}); }
    static Owner user(uid_t user) { return Owner(user, {}); }
    // The user, if the identifier is empty.
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
    // False if the proxy could not resolve the name.
    bool isResolvable = true;
    // When its last address expires.
    Clock::time_point expiry = {};
  };

  explicit HostNames(std::size_t capacity = kDefaultCapacity) : capacity_(capacity) {}

  // name: isUsableHostName() is true for it.
  void learn(const Owner& owner, const std::string& name,
             std::span<const ResolvedAddress> addresses, Clock::time_point now);
  void forget(const Owner& owner, const std::string& name);

  // The name of the application's flow to this address. user and identifier: empty if unknown.
  std::optional<Found> find(std::optional<uid_t> user, std::string_view identifier,
                            const SocketEndpoint& address, Clock::time_point now);

  // Until it expires, the name is reported as not resolvable to this user.
  void setUnresolvable(const Found& found, Clock::time_point now);

  // Includes expired names that have not been removed yet.
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
  // The names of one user, or of the machine; most recently used first.
  using Entries = std::list<Entry>;
  using Position = Entries::iterator;

  // The names of one address for one owner.
  struct Names {
    std::vector<Position> positions;
    // Until then the list is incomplete, because there were too many names.
    Clock::time_point crowdedUntil;
  };
  // Number of candidates.
  enum class Count { none, one, several };
  struct Candidates {
    Count count = Count::none;
    Position position;
  };

  Candidates candidates(const Owner& owner, const SocketEndpoint& address, Clock::time_point now);
  // The names of an application and of its user.
  Candidates ownCandidates(const Owner& application, const Owner& user,
                           const SocketEndpoint& address, Clock::time_point now);
  // True if the owners know both public and private addresses of the name.
  bool isRebinding(const std::string& name, std::initializer_list<const Owner*> owners,
                   Clock::time_point now) const;
  Position entry(const Owner& owner, const std::string& name, Clock::time_point now);
  const Entry* known(const Owner& owner, const std::string& name) const;
  void add(Position position, const SocketEndpoint& address, Clock::time_point expiry,
           Clock::time_point now);
  // Removes a name from the list of an address.
  void unlink(Position position, const SocketEndpoint& address);
  void remove(Position position);
  void evict();

  const std::size_t capacity_;
  mutable std::mutex lock_;
  // All guarded by lock_.
  std::map<std::optional<uid_t>, Entries> users_;
  std::unordered_map<std::string, Position> byName_;
  std::unordered_map<std::string, Names> byAddress_;
  // Names that the proxy cannot resolve, with their expiry.
  std::map<std::pair<std::optional<uid_t>, std::string>, Clock::time_point> unresolvable_;
};

}  // namespace ostravel::linuxplatform
