#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Interface/Completion.h"

namespace ostravel::test {

// Reads and writes whose completions the test runs, at any moment and with any arguments, even
// those that no correct platform would deliver: late, after a close, or data together with an
// error.
class ScriptedTransfers {
 public:
  // Runs the completion of the outstanding operation.
  void completeRead(std::optional<std::string_view> bytes,
                    platform::OptionalError error = std::nullopt);
  void completeWrite(platform::OptionalError error = std::nullopt);

  // A completion that never runs keeps its tunnel alive, and with it this object.
  void dropOutstanding() {
    read_ = nullptr;
    write_ = nullptr;
  }

  bool readOutstanding() const { return read_ != nullptr; }
  bool writeOutstanding() const { return write_ != nullptr; }
  // The operations that were started, in order, and how often this one was.
  const std::vector<std::string>& calls() const { return calls_; }
  long callsOf(std::string_view call) const;
  const std::string& lastWritten() const { return lastWritten_; }

 protected:
  void note(std::string call) { calls_.push_back(std::move(call)); }
  void startRead(std::string call, platform::ReadCompletion completion);
  void startWrite(const platform::Data& data, platform::ErrorCompletion completion);

 private:
  platform::ReadCompletion read_;
  platform::ErrorCompletion write_;
  std::vector<std::string> calls_;
  std::string lastWritten_;
};

}  // namespace ostravel::test
