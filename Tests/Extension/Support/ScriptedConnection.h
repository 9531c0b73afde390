#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

#include "Platform/Interface/TCPConnection.h"
#include "Tests/Extension/Support/ScriptedTransfers.h"

namespace ostravel::test {

// A connection whose completions and state the test controls. Its calls are "addObserver state",
// "removeObserver state", "read 1 4096", "write 12" and "cancel".
class ScriptedConnection final : public platform::TCPConnection, public ScriptedTransfers {
 public:
  platform::TCPConnectionState currentState = platform::TCPConnectionState::connecting;
  platform::OptionalError currentError;
  // Runs inside addObserver, once the observer is added.
  std::function<void(platform::KeyValueObserver&)> duringAddObserver;

  platform::TCPConnectionState state() const override { return currentState; }
  platform::OptionalError error() const override { return currentError; }
  void addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                   std::string_view keyPath) override;
  void removeObserver(platform::KeyValueObserver& observer, std::string_view keyPath) override;
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void cancel() override { note("cancel"); }
};

}  // namespace ostravel::test
