#pragma once

#include <chrono>

#include "Companion/Shared/ControlClient.h"
#include "Companion/Shared/TimeText.h"

namespace ostravel::companion {

// Prints the latest decisions, or follows them: each flow when it is decided, and again whenever
// its outcome changes.
class FlowList {
 public:
  // time: used in text; JSON has seconds since 1970.
  FlowList(const ControlClient& client, bool asJSON, TimeStyle time)
      : client_(client), asJSON_(asJSON), time_(time) {}

  // Both return the program's exit status.
  int print() const;
  // Runs until the output is closed or the extension ends.
  int follow() const;

 private:
  bool printFlow(const json_t* flow) const;

  const ControlClient& client_;
  const bool asJSON_;
  const TimeStyle time_;
};

}  // namespace ostravel::companion
