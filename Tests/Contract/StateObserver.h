#pragma once

#include <atomic>
#include <optional>
#include <string_view>
#include <vector>

#include "Platform/Interface/KeyValueObserver.h"
#include "Platform/Interface/TCPConnection.h"
#include "Tests/Contract/EventList.h"

namespace ostravel::contract {

// Records the states of a connection as it reads them when it is notified.
class StateObserver final : public platform::KeyValueObserver {
 public:
  void observeValue(std::optional<std::string_view> keyPath,
                    platform::Observable* object) override {
    auto* const connection = dynamic_cast<platform::TCPConnection*>(object);
    if (keyPath != "state" || connection == nullptr) {
      sawUnexpectedNotification_ = true;
      return;
    }
    states_.add(connection->state());
  }

  std::vector<platform::TCPConnectionState> states() const { return states_.all(); }
  bool saw(platform::TCPConnectionState state) const {
    for (const auto seen : states()) {
      if (seen == state) {
        return true;
      }
    }
    return false;
  }
  bool sawUnexpectedNotification() const { return sawUnexpectedNotification_; }

 private:
  EventList<platform::TCPConnectionState> states_;
  std::atomic<bool> sawUnexpectedNotification_ = false;
};

}  // namespace ostravel::contract
