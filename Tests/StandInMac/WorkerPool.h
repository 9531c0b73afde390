#pragma once

#include <poll.h>

#include <chrono>
#include <functional>
#include <optional>
#include <span>

namespace ostravel::standin {

// The threads on which the stand-in calls back: real ones, as many as there is work at the same
// time. One pool per process; its threads end with the process.

// Runs the work on a thread of the pool, inside an autorelease pool.
void runOnWorker(std::function<void()> work);

// For work: poll(2), but not ended by a signal. Returns whether a descriptor is ready; without a
// timeout it waits until one is.
bool pollOnWorker(std::span<pollfd> entries,
                  std::optional<std::chrono::milliseconds> timeout = std::nullopt);

// Returns when all work submitted so far is done, except what waits for descriptors that are not
// ready.
void settleWorkers();

}  // namespace ostravel::standin
