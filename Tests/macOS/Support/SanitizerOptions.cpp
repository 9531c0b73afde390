// What the sanitizers' runtimes ask for before the program begins. They have no effect on what they
// find in our own code, with one exception, which is named.

extern "C" {

const char* __asan_default_options();
const char* __tsan_default_options();

// The Objective-C runtime keeps its class tables where the leak search does not look, and would be
// reported for them in every program. What flows, connections and providers leave behind is counted
// by tests of their own, object by object and byte by byte.
const char* __asan_default_options() {
  return "detect_leaks=0";
}

// The GNUstep Foundation is not instrumented: calls that it makes are not looked at, and its locks
// are taken in orders that the deadlock search reports in programs of three lines. The search is
// off here for our own locks too; the core's tests have it on.
const char* __tsan_default_options() {
  return "ignore_noninstrumented_modules=1:detect_deadlocks=0";
}

}  // extern "C"
