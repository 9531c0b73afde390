// The options that ThreadSanitizer's runtime reads before the program starts.

extern "C" {

const char* __tsan_default_options();

// The GNUstep Foundation is not instrumented: its synchronisation is invisible, so its calls are
// ignored. Ours are checked.
const char* __tsan_default_options() {
  return "ignore_noninstrumented_modules=1";
}

}  // extern "C"
