#pragma once

#include "Companion/Shared/ControlClient.h"

namespace ostravel::companion {

// The live screen of a terminal, refreshed once a second until q is typed. Adapts to the size of
// the terminal as it changes.
class TopScreen {
 public:
  explicit TopScreen(const ControlClient& client) : client_(client) {}

  // Both return the program's exit status.
  int run() const;
  // The same as JSON, a line a second, until the output or the extension is gone.
  int print() const;

 private:
  const ControlClient& client_;
};

}  // namespace ostravel::companion
