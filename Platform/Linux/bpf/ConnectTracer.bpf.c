// Remembers which process has connected a socket, or has sent on it without connecting it. Attached
// to the root of the control groups, so it sees every process; it lets everything pass.
//
// Everything that is needed of the kernel's interface is written down here (bpf(2),
// bpf-helpers(7)), so that no kernel headers have to be installed. No helper asks for a licence.

typedef unsigned int u32;
typedef unsigned long long u64;

enum {
  kMapTypeLRUHash = 9,
  // Sockets that wait for their first packet to be looked at are few; the least recently used ones
  // are dropped by themselves.
  kMaximumSockets = 16384,
  kUpdateAny = 0,
  kAllow = 1,
};

static void* (*const lookupElement)(void* map, const void* key) = (void*)1;
static long (*const updateElement)(void* map, const void* key, const void* value,
                                   u64 flags) = (void*)2;
static u64 (*const currentProcessAndThread)(void) = (void*)14;
static u64 (*const socketCookie)(void* context) = (void*)46;

// The form in which libbpf takes the description of a map: each number as the size of an array.
struct {
  int (*type)[kMapTypeLRUHash];
  u64* key;
  u32* value;
  int (*max_entries)[kMaximumSockets];
} processes __attribute__((section(".maps"), used));

static inline __attribute__((always_inline)) int remember(void* context) {
  const u64 cookie = socketCookie(context);
  const u32 process = (u32)(currentProcessAndThread() >> 32);
  // Who sends again and again without connecting changes nothing, which is cheaper.
  const u32* const known = lookupElement(&processes, &cookie);
  if (known == 0 || *known != process) {
    updateElement(&processes, &cookie, &process, kUpdateAny);
  }
  return kAllow;
}

__attribute__((section("cgroup/connect4"), used)) int connect4(void* context) {
  return remember(context);
}

__attribute__((section("cgroup/connect6"), used)) int connect6(void* context) {
  return remember(context);
}

__attribute__((section("cgroup/sendmsg4"), used)) int sendmsg4(void* context) {
  return remember(context);
}

__attribute__((section("cgroup/sendmsg6"), used)) int sendmsg6(void* context) {
  return remember(context);
}
