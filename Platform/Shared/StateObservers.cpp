#include "Platform/Shared/StateObservers.h"

#include <algorithm>
#include <utility>

namespace ostravel::platform {

bool StateObservers::add(std::weak_ptr<KeyValueObserver> observer) {
  const auto* const identity = observer.lock().get();
  const std::lock_guard guard(lock_);
  // The new observer could be at the address of a destroyed one.
  std::erase_if(registrations_, isDestroyed);
  registrations_.push_back({std::move(observer), identity});
  return hasMissedChange_;
}

void StateObservers::remove(const KeyValueObserver& observer) {
  const std::lock_guard guard(lock_);
  const auto found = std::find_if(
      registrations_.begin(), registrations_.end(),
      [&observer](const Registration& registration) { return registration.identity == &observer; });
  if (found != registrations_.end()) {
    registrations_.erase(found);
  }
  if (registrations_.empty()) {
    // A connection lives much longer than its last observer.
    registrations_ = {};
  }
}

void StateObservers::notify(TCPConnection& connection) {
  notify(connection, Change::now);
}

void StateObservers::notifyOfMissedChange(TCPConnection& connection) {
  notify(connection, Change::missed);
}

void StateObservers::notify(TCPConnection& connection, Change change) {
  std::vector<Registration> registrations;
  {
    const std::lock_guard guard(lock_);
    if (change == Change::missed && !hasMissedChange_) {
      return;
    }
    registrations = registrations_;
    hasMissedChange_ = std::all_of(registrations.begin(), registrations.end(), isDestroyed);
  }
  // Without the lock: observers remove themselves from here.
  for (const Registration& registration : registrations) {
    const auto observer = registration.observer.lock();
    if (observer && isRegistered(*observer)) {
      observer->observeValue(kKeyPath, &connection);
    }
  }
}

std::size_t StateObservers::count() const {
  const std::lock_guard guard(lock_);
  return registrations_.size();
}

bool StateObservers::isDestroyed(const Registration& registration) {
  return registration.observer.expired();
}

bool StateObservers::isRegistered(const KeyValueObserver& observer) const {
  const std::lock_guard guard(lock_);
  return std::any_of(
      registrations_.begin(), registrations_.end(),
      [&observer](const Registration& registration) { return registration.identity == &observer; });
}

}  // namespace ostravel::platform
