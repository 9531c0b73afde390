// The record that the programs in the kernel make of a process that connects a socket.

#include "KernelInterface.bpf.h"

enum {
  // Few sockets await the examination of their first packet; the map drops the least recently used.
  kMaximumSockets = 16384,
  kAllow = 1,
};

static u64 (*const socketCookie)(void* context) = (void*)46;

// Must match ConnectRecord.h.
struct Record {
  u32 process;
  // The following are 0 unless programs are traced.
  u32 user;
  u32 effectiveUser;
  // The kernel's encoding: 12 bits of major, 20 bits of minor number.
  u32 executableDevice;
  u64 executableInode;
  // When the first thread started, in nanoseconds since boot.
  u64 startTime;
  u64 stackStart;
};

INLINE int areEqual(const struct Record* one, const struct Record* other) {
  return one->process == other->process && one->user == other->user &&
         one->effectiveUser == other->effectiveUser &&
         one->executableDevice == other->executableDevice &&
         one->executableInode == other->executableInode && one->startTime == other->startTime &&
         one->stackStart == other->stackStart;
}

// The key is the socket's cookie. In libbpf's form of a map description, each number is the size of
// an array.
struct {
  int (*type)[kMapTypeLRUHash];
  u64* key;
  struct Record* value;
  int (*max_entries)[kMaximumSockets];
} processes SECTION(".maps");
