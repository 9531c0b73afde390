#include "Platform/Shared/StateObservers.h"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

namespace ostravel::platform {

bool StateObservers::add(std::weak_ptr<KeyValueObserver> observer) {
  const auto* const identity = observer.lock().get();
  const std::lock_guard guard(lock());
  // The new observer could be at the address of a destroyed one.
  if (!registrations_) {
    registrations_ = std::make_unique<std::vector<Registration>>();
  }
  std::erase_if(*registrations_, isDestroyed);
  registrations_->push_back({std::move(observer), identity});
  return hasMissedChange_;
}

void StateObservers::remove(const KeyValueObserver& observer) {
  const std::lock_guard guard(lock());
  if (!registrations_) {
    return;
  }
  const auto found = std::find_if(
      registrations_->begin(), registrations_->end(),
      [&observer](const Registration& registration) { return registration.identity == &observer; });
  if (found != registrations_->end()) {
    registrations_->erase(found);
  }
  if (registrations_->empty()) {
    // A connection lives much longer than its last observer.
    registrations_ = nullptr;
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
    const std::lock_guard guard(lock());
    if (change == Change::missed && !hasMissedChange_) {
      return;
    }
    if (registrations_) {
      registrations = *registrations_;
    }
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
  const std::lock_guard guard(lock());
  return registrations_ ? registrations_->size() : 0;
}

std::mutex& StateObservers::lock() const {
  // Never destroyed, because connections may outlive objects of static storage.
  static auto& locks = *new std::array<std::mutex, 16>;
  return locks[std::hash<const StateObservers*>{}(this) / sizeof(void*) % locks.size()];
}

bool StateObservers::isDestroyed(const Registration& registration) {
  return registration.observer.expired();
}

bool StateObservers::isRegistered(const KeyValueObserver& observer) const {
  const std::lock_guard guard(lock());
  return registrations_ && std::any_of(registrations_->begin(), registrations_->end(),
                                       [&observer](const Registration& registration) {
                                         return registration.identity == &observer;
                                       });
}

}  // namespace ostravel::platform
