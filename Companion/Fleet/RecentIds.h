#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <unordered_set>

namespace ostravel::companion {

// The latest identifiers, to detect duplicates. Owned by the subscriber.
class RecentIds {
 public:
  explicit RecentIds(std::size_t capacity) : capacity_(capacity) {}

  // False if it is among the latest ones already.
  bool add(const std::string& id);

 private:
  const std::size_t capacity_;
  std::unordered_set<std::string> ids_;
  std::deque<const std::string*> order_;
};

}  // namespace ostravel::companion
