#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Interface/TCPConnection.h"

namespace ostravel::test {

// A connection whose every completion is run by the test, at any moment and with anything, also
// what no sound platform would deliver: late, after a cancel, data together with an error.
class ScriptedConnection final : public platform::TCPConnection {
 public:
  platform::TCPConnectionState currentState = platform::TCPConnectionState::connecting;
  platform::OptionalError currentError;

  // Runs the completion of the outstanding operation.
  void completeRead(std::optional<std::string_view> bytes,
                    platform::OptionalError error = std::nullopt);
  void completeWrite(platform::OptionalError error = std::nullopt);

  bool readOutstanding() const { return read_ != nullptr; }
  bool writeOutstanding() const { return write_ != nullptr; }
  // "addObserver state", "removeObserver state", "read 1 4096", "write 12", "cancel".
  const std::vector<std::string>& calls() const { return calls_; }
  const std::string& lastWritten() const { return lastWritten_; }

  platform::TCPConnectionState state() const override { return currentState; }
  platform::OptionalError error() const override { return currentError; }
  void addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                   std::string_view keyPath) override;
  void removeObserver(platform::KeyValueObserver& observer, std::string_view keyPath) override;
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void cancel() override;

 private:
  platform::ReadCompletion read_;
  platform::ErrorCompletion write_;
  std::vector<std::string> calls_;
  std::string lastWritten_;
};

}  // namespace ostravel::test
