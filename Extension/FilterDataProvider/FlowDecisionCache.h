#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <unordered_map>

namespace ostravel {

// The decisions that are remembered, each until its expiry. A template of the decision, so that it
// can be used, and tested, without the provider. Owned by the provider; not safe for use by several
// threads while one of them changes it.
//
// There is no limit: expired entries are removed only by a store that finds more than the
// threshold, and entries that are still valid always stay. Beside the table, all entries are in the
// order of their expiry, so a sweep looks at the entries that it removes and at one more. However
// many entries stay, a store costs the same, averaged over all stores.
template <typename Decision>
class FlowDecisionCache {
 public:
  // A sweep needs more than this many entries.
  static constexpr std::size_t kPruningThreshold = 2000;

  struct Entry {
    Decision decision;
    // Seconds since 1970 from which on the entry does not count.
    double expiry;
  };

  FlowDecisionCache() = default;
  // The order points into the table.
  FlowDecisionCache(const FlowDecisionCache&) = delete;
  FlowDecisionCache& operator=(const FlowDecisionCache&) = delete;

  // Also finds an entry that has expired; null when there is none. Valid until the next change.
  const Entry* find(const std::string& key) const {
    const auto found = slots_.find(key);
    return found == slots_.end() ? nullptr : &found->second.entry;
  }

  // Removes what has expired at now, if there are more than kPruningThreshold entries. Then adds
  // the entry, or replaces the one of this key.
  void store(const std::string& key, Decision decision, double expiry, double now) {
    if (size() > kPruningThreshold) {
      sweep(now);
    }
    const auto [slot, isNew] = slots_.try_emplace(key);
    if (!isNew) {
      order_.erase(slot->second.place);
    }
    // Time usually goes forward, so the end is usually the place.
    const auto place = order_.emplace_hint(order_.end(), expiry, &slot->first);
    slot->second = {{decision, expiry}, place};
  }

  std::size_t size() const { return slots_.size(); }

 private:
  // By expiry; the keys are those of the table.
  using Order = std::multimap<double, const std::string*>;

  struct Slot {
    Entry entry;
    typename Order::iterator place;
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

  std::unordered_map<std::string, Slot> slots_;
  Order order_;
};

}  // namespace ostravel
