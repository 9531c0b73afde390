#pragma once

// The part of CoreFoundation that this system uses, declared as the framework declares it.

extern "C" {

// On the main thread it also serves the main queue of Dispatch.
void CFRunLoopRun(void);

}  // extern "C"
