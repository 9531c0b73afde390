#pragma once

#include <functional>

namespace ostravel::standin {

// The thread that entered main, once it has been handed over to Dispatch.

// Runs the work on it, after all earlier work, inside an autorelease pool.
void runOnMainThread(std::function<void()> work);

// Called by that thread: hands it over. Work that was added before has waited for this.
[[noreturn]] void handOverMainThread();

}  // namespace ostravel::standin
