// Code that a test loads into a program with LD_PRELOAD (ld.so(8)): sends it SIGTERM in the last
// moment before it first waits for events.

#include <dlfcn.h>
#include <sys/epoll.h>

#include <atomic>
#include <csignal>

extern "C" int epoll_wait(int epoll, epoll_event* events, int count, int timeout) {
  using Wait = int (*)(int, epoll_event*, int, int);
  static const auto wait = reinterpret_cast<Wait>(::dlsym(RTLD_NEXT, "epoll_wait"));
  static std::atomic<bool> isSent = false;
  // A call with a time-out of zero does not wait. Raised on this thread, so that the signal is
  // handled before the wait begins.
  if (timeout != 0 && !isSent.exchange(true)) {
    ::raise(SIGTERM);
  }
  return wait(epoll, events, count, timeout);
}
