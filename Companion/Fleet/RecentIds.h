#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <unordered_set>

namespace ostravel::companion {

// The last identifiers that were seen, so that what comes twice is noticed. Owned by the
// subscriber.
class RecentIds {
 public:
  explicit RecentIds(std::size_t capacity) : capacity_(capacity) {}

  // False if it was among the last ones.
  bool add(const std::string& id);

 private:
  const std::size_t capacity_;
  std::unordered_set<std::string> ids_;
  std::deque<const std::string*> order_;
};

}  // namespace ostravel::companion
