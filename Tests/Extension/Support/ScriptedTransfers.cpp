#include "Tests/Extension/Support/ScriptedTransfers.h"

#include <algorithm>
#include <utility>

#include "Tests/Extension/Support/Bytes.h"

namespace ostravel::test {

void ScriptedTransfers::completeRead(std::optional<std::string_view> bytes,
                                     platform::OptionalError error) {
  std::optional<platform::Data> data;
  if (bytes) {
    data = platform::Data::copyOf(*bytes);
  }
  std::exchange(read_, nullptr)(std::move(data), std::move(error));
}

void ScriptedTransfers::completeWrite(platform::OptionalError error) {
  std::exchange(write_, nullptr)(std::move(error));
}

long ScriptedTransfers::callsOf(std::string_view call) const {
  return std::count(calls_.begin(), calls_.end(), call);
}

void ScriptedTransfers::startRead(std::string call, platform::ReadCompletion completion) {
  note(std::move(call));
  read_ = std::move(completion);
}

void ScriptedTransfers::startWrite(const platform::Data& data,
                                   platform::ErrorCompletion completion) {
  note("write " + std::to_string(data.size()));
  lastWritten_ = textOf(data.bytes());
  write_ = std::move(completion);
}

}  // namespace ostravel::test
