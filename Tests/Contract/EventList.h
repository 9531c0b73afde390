#pragma once

#include <cstddef>
#include <mutex>
#include <vector>

namespace ostravel::contract {

// What happened, in the order in which it was recorded. Usable from any thread.
template <typename Event>
class EventList {
 public:
  void add(Event event) {
    const std::lock_guard guard(lock_);
    events_.push_back(std::move(event));
  }
  std::vector<Event> all() const {
    const std::lock_guard guard(lock_);
    return events_;
  }
  std::size_t size() const {
    const std::lock_guard guard(lock_);
    return events_.size();
  }

 private:
  mutable std::mutex lock_;
  std::vector<Event> events_;
};

}  // namespace ostravel::contract
