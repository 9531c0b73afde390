#include "Companion/Fleet/ReconnectDelay.h"

#include <algorithm>
#include <random>

namespace ostravel::companion {

std::chrono::milliseconds reconnectDelay(int attempt, double random) {
  // Enough to reach the longest one.
  constexpr int kMostDoublings = 10;
  const auto limit =
      std::min(kFirstReconnectDelay * (1 << std::clamp(attempt - 1, 0, kMostDoublings)),
               kLongestReconnectDelay);
  const auto delay =
      std::chrono::duration_cast<std::chrono::milliseconds>(limit * std::clamp(random, 0.0, 1.0));
  return std::max(delay, kShortestReconnectDelay);
}

std::chrono::milliseconds randomReconnectDelay(int attempt) {
  thread_local std::minstd_rand generator{std::random_device()()};
  return reconnectDelay(attempt, std::uniform_real_distribution<>()(generator));
}

}  // namespace ostravel::companion
