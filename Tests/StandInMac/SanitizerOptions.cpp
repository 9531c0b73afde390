// What ThreadSanitizer's runtime asks for before the program begins.

extern "C" {

const char* __tsan_default_options();

// The GNUstep Foundation is not instrumented: how it synchronises cannot be seen, and so the calls
// that it makes are not looked at. Ours are.
const char* __tsan_default_options() {
  return "ignore_noninstrumented_modules=1";
}

}  // extern "C"
