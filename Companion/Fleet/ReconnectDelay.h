#pragma once

#include <chrono>

namespace ostravel::companion {

// How long a machine waits before it tries to connect again: a random time up to a limit that
// starts at kFirstReconnectDelay and doubles with each attempt up to kLongestReconnectDelay, so
// that the machines of a fleet do not all return at once. `random` is from 0 to 1; `attempt` counts
// from 1.
constexpr std::chrono::milliseconds kFirstReconnectDelay{1000};
constexpr std::chrono::milliseconds kShortestReconnectDelay{100};
constexpr std::chrono::milliseconds kLongestReconnectDelay{60'000};
std::chrono::milliseconds reconnectDelay(int attempt, double random);

// The same with a random number of this thread.
std::chrono::milliseconds randomReconnectDelay(int attempt);

}  // namespace ostravel::companion
