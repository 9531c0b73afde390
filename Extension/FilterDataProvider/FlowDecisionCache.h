#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace ostravel {

// Remembers decisions, each until its expiry. A template, so that it can be used and tested without
// the provider. Owned by the provider; several threads may read it only while none changes it.
//
// It has no size limit: expired entries are removed only by a store that finds more than the
// threshold, and valid entries always stay. A second index keeps the entries in the order of their
// expiry, so a sweep visits only the entries that it removes and one more. The amortised cost of a
// store does not depend on the number of entries.
template <typename Decision>
class FlowDecisionCache {
 public:
  // Expired entries are removed only if there are more entries than this.
  static constexpr std::size_t kPruningThreshold = 2000;

  struct Entry {
    Decision decision;
    // Seconds since 1970 from which on the entry is ignored.
    double expiry;
  };

  FlowDecisionCache() = default;
  // Not copyable: order_ points into the table.
  FlowDecisionCache(const FlowDecisionCache&) = delete;
  FlowDecisionCache& operator=(const FlowDecisionCache&) = delete;

  // Also finds an expired entry; null if there is none. Valid until the next change.
  const Entry* find(std::string_view key) const {
    const auto found = slots_.find(key);
    return found == slots_.end() ? nullptr : &found->second.entry;
  }

  // If there are more than kPruningThreshold entries, removes those that have expired at now. Then
  // adds the entry, or replaces the one with this key.
  void store(std::string key, Decision decision, double expiry, double now) {
    if (size() > kPruningThreshold) {
      sweep(now);
    }
    const auto [slot, isNew] = slots_.try_emplace(std::move(key));
    if (!isNew) {
      order_.erase(slot->second.place);
    }
    // New entries usually expire last.
    const auto place = order_.emplace_hint(order_.end(), expiry, &slot->first);
    slot->second = {{decision, expiry}, place};
  }

  std::size_t size() const { return slots_.size(); }

 private:
  // Ordered by expiry; points to the keys of the table.
  using Order = std::multimap<double, const std::string*>;

  struct Slot {
    Entry entry;
    typename Order::iterator place;
  };

  // Finds by a view, so that a look-up needs no string.
  struct Hash {
    using is_transparent = void;

    std::size_t operator()(std::string_view key) const {
      return std::hash<std::string_view>{}(key);
    }
  };

  void sweep(double now) {
    while (!order_.empty()) {
      const auto first = order_.begin();
      if (first->first > now) {
        return;
      }
      slots_.erase(slots_.find(*first->second));
      order_.erase(first);
    }
  }

  std::unordered_map<std::string, Slot, Hash, std::equal_to<>> slots_;
  Order order_;
};

}  // namespace ostravel
