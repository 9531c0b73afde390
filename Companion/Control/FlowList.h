#pragma once

#include <chrono>

#include "Companion/Shared/ControlClient.h"

namespace ostravel::companion {

// Prints the latest decisions, or follows them: each flow when it is decided, and again whenever
// its outcome changes.
class FlowList {
 public:
  explicit FlowList(const ControlClient& client, bool asJSON) : client_(client), asJSON_(asJSON) {}

  // Both return the program's exit status.
  int print() const;
  // Runs until the output is closed or the extension ends.
  int follow() const;

 private:
  bool printFlow(const json_t* flow) const;

  const ControlClient& client_;
  const bool asJSON_;
};

}  // namespace ostravel::companion
