#pragma once

#include <optional>
#include <string_view>

namespace ostravel::platform {

// An object whose properties can be observed by name.
class Observable {
 public:
  Observable() = default;
  Observable(const Observable&) = delete;
  Observable& operator=(const Observable&) = delete;
  virtual ~Observable() = default;
};

// Notified after a property that it observes has changed, on the thread that changed it. The new
// value is read from the object.
class KeyValueObserver {
 public:
  KeyValueObserver() = default;
  KeyValueObserver(const KeyValueObserver&) = delete;
  KeyValueObserver& operator=(const KeyValueObserver&) = delete;
  virtual ~KeyValueObserver() = default;

  virtual void observeValue(std::optional<std::string_view> keyPath, Observable* object) = 0;
};

}  // namespace ostravel::platform
