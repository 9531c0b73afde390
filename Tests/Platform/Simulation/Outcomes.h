#pragma once

#include <optional>
#include <string>

#include "Platform/Interface/Completion.h"

namespace ostravel::simulation {

// What became of an operation. Has to outlive the completions that it gave.
struct Outcome {
  int count = 0;
  platform::OptionalError error;

  platform::ErrorCompletion completion() {
    return [this](platform::OptionalError result) {
      ++count;
      error = std::move(result);
    };
  }
};

// The same for a read; text is what the last one delivered.
struct ReadOutcome {
  int count = 0;
  std::string text;
  // Absent or empty data without an error.
  bool isEnd = false;
  bool isEmptyData = false;
  platform::OptionalError error;

  platform::ReadCompletion completion() {
    return [this](std::optional<platform::Data> data, platform::OptionalError result) {
      ++count;
      text.clear();
      if (data) {
        const auto bytes = data->bytes();
        text.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
      }
      isEmptyData = data && data->empty();
      isEnd = text.empty() && !result;
      error = std::move(result);
    };
  }
};

}  // namespace ostravel::simulation
