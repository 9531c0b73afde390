#pragma once

#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "Platform/Interface/TCPConnection.h"

namespace ostravel::platform {

// The observers of one connection's state, as defined by TCPConnection::addObserver. Owned by the
// connection; usable from any thread. Does not decide on which thread observers are notified: each
// platform posts missed changes to its own.
class StateObservers {
 public:
  // The only property of a connection that can be observed.
  static constexpr std::string_view kKeyPath = "state";

  // Returns true if the state changed while there were no observers. The caller then calls
  // notifyOfMissedChange(), later: never inside the call that adds the observer.
  [[nodiscard]] bool add(std::weak_ptr<KeyValueObserver> observer);

  // No effect if it is not registered. Once removed, an observer is not notified again, even by a
  // notification that is in progress; it may still be running on another thread.
  void remove(const KeyValueObserver& observer);

  // Called after each change of the state. An observer may remove itself or another one. The caller
  // keeps the connection alive: an observer may release it.
  void notify(TCPConnection& connection);

  // Does nothing if another change has been notified in the meantime.
  void notifyOfMissedChange(TCPConnection& connection);

  std::size_t count() const;

 private:
  struct Registration {
    std::weak_ptr<KeyValueObserver> observer;
    // Finds it while it is being destroyed, when it cannot be locked.
    const KeyValueObserver* identity = nullptr;
  };
  enum class Change { now, missed };

  void notify(TCPConnection& connection, Change change);
  static bool isDestroyed(const Registration& registration);
  bool isRegistered(const KeyValueObserver& observer) const;

  // Shared with other connections, because a lock of its own would be most of an idle one: a
  // connection is observed only until its handshake begins.
  std::mutex& lock() const;

  // Both guarded by lock(): null if there are none; the state changed while there were none.
  std::unique_ptr<std::vector<Registration>> registrations_;
  bool hasMissedChange_ = false;
};

}  // namespace ostravel::platform
