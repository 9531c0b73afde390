// Publishes, in a table that is mapped into the extension's memory, which process sends each SYN of
// one network namespace, before the SYN leaves. Marks the sockets that the extension and the local
// proxy connect, so that they are not intercepted. Changes nothing else.
//
// Reading the kernel's own structures requires type information (/sys/kernel/btf/vmlinux) and two
// helpers that are reserved for programs under a GPL-compatible licence (bpf_get_current_task_btf,
// bpf_probe_read_kernel): hence the licence in KernelInterface.bpf.h, which applies to this file
// too.

#include "ConnectRecord.bpf.h"

typedef unsigned char u8;
typedef unsigned short u16;

enum {
  kMapTypeHash = 1,
  kMapTypeArray = 2,
  kMappable = 1 << 10,

  kTCPConnect = 3,
  kTCPListen = 11,
  kIPv4 = 2,
  kIPv6 = 10,
  kStream = 1,
  kStateClosed = 7,
  kStateListening = 10,
  // Returned so that other programs on the same control group still decide.
  kNoDecision = 1,

  // As for setsockopt(2).
  kSocketLevel = 1,
  kMark = 36,
  kTCPLevel = 6,
  kNoDelay = 1,
};

// Must match ConnectTable.h.
enum {
  kWays = 4,
  kSets = 1024,
  kProgramCounters = 4096,
  kMaximumMarked = 1024,
};

static long (*const setOption)(void* context, int level, int option, void* value,
                               int size) = (void*)49;
static long (*const readKernel)(void* into, u32 size, const void* from) = (void*)113;
static u64 (*const networkCookie)(void* context) = (void*)122;
static void* (*const toTCPSocket)(void* socket) = (void*)137;
static void* (*const currentTask)(void) = (void*)158;

// One published connect, 128 bytes. Must match ConnectTable.h.
struct Slot {
  // Odd while the slot is being written.
  u64 sequence;
  u64 cookie;
  // As in the packet; IPv4 addresses are in the first four bytes.
  u64 source[2];
  u64 destination[2];
  u16 sourcePort;
  u16 destinationPort;
  u32 initialSequence;
  struct Record record;
  u32 socketUser;
  u32 boundInterface;
  u32 family;
  // The counter of the process when it sent the SYN.
  u32 programChanges;
  u64 place;
  u64 cgroup;
};

struct Set {
  struct Slot ways[kWays];
};

// A process of the local proxy. Must match SocketMarker.cpp.
struct Marked {
  struct Record record;
  // Invalid once the counter of the state differs.
  u64 listenerChanges;
};

// Must match ConnectTable.h.
struct State {
  // Set once by the extension, before the programs are attached.
  u64 network;
  u64 seed;
  u32 extension;
  u32 proxyPort;
  // The address of the extension's mount namespace, found when it connects.
  u64 mountNamespace;
  // The process that owns the listener of the local proxy, set by the extension; 0 if unknown.
  u32 proxyOwner;
  // The bits of the packet mark that may be changed; 0 if no socket is marked.
  u32 markMask;
  // The value of these bits.
  u32 mark;
  // Set by the extension once it has seen its own connect in the table.
  u32 leavesOutMarked;
  // Counts the events that may change which process listens on the proxy's port.
  u64 listenerChanges;
  // Counts the programs executed, by process number; several processes share a counter.
  u32 programChanges[kProgramCounters];
};

struct {
  int (*type)[kMapTypeArray];
  u32* key;
  struct Set* value;
  int (*max_entries)[kSets];
  int (*map_flags)[kMappable];
} connects SECTION(".maps");

struct {
  int (*type)[kMapTypeArray];
  u32* key;
  struct State* value;
  int (*max_entries)[1];
  int (*map_flags)[kMappable];
} states SECTION(".maps");

// The key is the process number.
struct {
  int (*type)[kMapTypeHash];
  u32* key;
  struct Marked* value;
  int (*max_entries)[kMaximumMarked];
} marked SECTION(".maps");

struct Socket {
  u32 boundInterface;
  u32 family;
  u32 type;
  u32 protocol;
  u32 mark;
};

// The beginning of the context of a program for a connect, and the offset of its socket.
struct Connect {
  u32 others[16];
  struct Socket* socket;
};

// The beginning of the context of a program for socket operations, and the offset of its socket.
struct SocketOperation {
  u32 operation;
  u32 others[45];
  void* socket;
};

struct net {
  u64 net_cookie;
} KERNEL_TYPE;

typedef struct {
  struct net* net;
} possible_net_t;

struct in6_addr {
  union {
    u32 u6_addr32[4];
  } in6_u;
} KERNEL_TYPE;

struct sock_common {
  u32 skc_daddr;
  u32 skc_rcv_saddr;
  u16 skc_dport;
  u16 skc_num;
  u16 skc_family;
  int skc_bound_dev_if;
  possible_net_t skc_net;
  struct in6_addr skc_v6_daddr;
  struct in6_addr skc_v6_rcv_saddr;
} KERNEL_TYPE;

typedef struct {
  u32 val;
} kuid_t;

struct kernfs_node {
  u64 id;
} KERNEL_TYPE;

struct cgroup {
  struct kernfs_node* kn;
} KERNEL_TYPE;

struct sock_cgroup_data {
  struct cgroup* cgroup;
} KERNEL_TYPE;

struct sock {
  struct sock_common __sk_common;
  u32 sk_mark;
  kuid_t sk_uid;
  struct sock_cgroup_data sk_cgrp_data;
} KERNEL_TYPE;

struct inet_sock {
  struct sock sk;
} KERNEL_TYPE;

struct inet_connection_sock {
  struct inet_sock icsk_inet;
} KERNEL_TYPE;

struct tcp_sock {
  struct inet_connection_sock inet_conn;
  u32 write_seq;
} KERNEL_TYPE;

struct hlist_bl_node {
  struct hlist_bl_node** pprev;
} KERNEL_TYPE;

struct qstr {
  u64 hash_len;
} KERNEL_TYPE;

struct dentry {
  struct hlist_bl_node d_hash;
  struct dentry* d_parent;
  struct qstr d_name;
} KERNEL_TYPE;

struct vfsmount {
  struct dentry* mnt_root;
} KERNEL_TYPE;

struct mount {
  struct mount* mnt_parent;
  struct dentry* mnt_mountpoint;
  struct vfsmount mnt;
} KERNEL_TYPE;

struct path {
  struct vfsmount* mnt;
  struct dentry* dentry;
} KERNEL_TYPE;

struct file {
  struct path f_path;
} KERNEL_TYPE;

struct mm_struct {
  unsigned long start_stack;
  struct file* exe_file;
} KERNEL_TYPE;

struct mnt_namespace {
  u64 event;
} KERNEL_TYPE;

struct nsproxy {
  struct mnt_namespace* mnt_ns;
} KERNEL_TYPE;

typedef struct {
  int counter;
} atomic_t;

struct signal_struct {
  atomic_t live;
} KERNEL_TYPE;

struct task_struct {
  int tgid;
  struct mm_struct* mm;
  struct task_struct* group_leader;
  u64 start_boottime;
  struct nsproxy* nsproxy;
  struct signal_struct* signal;
} KERNEL_TYPE;

INLINE struct State* findState(void) {
  const u32 only = 0;
  return lookupElement(&states, &only);
}

INLINE u64 mix(u64 hash, u64 value) {
  hash = (hash ^ value) * 0x9e3779b97f4a7c15ULL;
  return hash ^ (hash >> 32);
}

INLINE u64 read64(const void* address) {
  u64 value = 0;
  readKernel(&value, sizeof value, address);
  return value;
}

// Counts the changes of the mounts in the extension's mount namespace; 0 if unknown.
INLINE u64 mountChanges(struct State* state, struct task_struct* task) {
  if (task->tgid == (int)state->extension) {
    state->mountNamespace = (u64)task->nsproxy->mnt_ns;
  }
  const struct mnt_namespace* const mounts = (const void*)state->mountNamespace;
  return mounts != 0 ? read64(&mounts->event) : 0;
}

// Identifies the location of the running file. Changes whenever the file's path does, because it or
// a folder above it was renamed, removed or mounted elsewhere, and with every change of the mounts
// in the extension's mount namespace. 0 if unknown.
//
// Walks upwards as the kernel does for the link /proc/PID/exe.
INLINE u64 placeOf(struct State* state, struct task_struct* task) {
  // Deeper paths are rare, and cost a few system calls.
  enum { kMaximumSteps = 40 };
  const u64 changes = mountChanges(state, task);
  if (changes == 0) {
    return 0;
  }
  const struct file* const file = task->mm->exe_file;
  if (file == 0) {
    return 0;
  }
  const struct dentry* entry = (const void*)read64(&file->f_path.dentry);
  const struct vfsmount* mount = (const void*)read64(&file->f_path.mnt);
  // A removed file is in no folder's table.
  u64 hash = mix(changes, read64(&entry->d_hash.pprev) != 0);
  const struct dentry* root = (const void*)read64(&mount->mnt_root);
  for (int step = 0; step < kMaximumSteps; ++step) {
    if (entry == root) {
      const struct mount* const whole =
          (const void*)((const u8*)mount - (u64)&((const struct mount*)0)->mnt);
      const struct mount* const parent = (const void*)read64(&whole->mnt_parent);
      if (parent == whole) {
        return hash | 1;
      }
      entry = (const void*)read64(&whole->mnt_mountpoint);
      mount = &parent->mnt;
      root = (const void*)read64(&mount->mnt_root);
      continue;
    }
    hash = mix(hash, read64(&entry->d_name.hash_len));
    const struct dentry* const parent = (const void*)read64(&entry->d_parent);
    // A file in memory, which is in no mount.
    if (parent == entry) {
      return 0;
    }
    entry = parent;
  }
  return 0;
}

// True if the task belongs to the process that connected the socket and still runs the same
// program.
INLINE int isConnector(const struct Record* record, struct task_struct* task) {
  const struct mm_struct* const memory = task->mm;
  return memory != 0 && record->process == (u32)task->tgid &&
         record->startTime == task->group_leader->start_boottime &&
         record->stackStart == memory->start_stack;
}

// The addresses of a socket of the family IPv6 may be IPv4 addresses, mapped (RFC 4291).
INLINE int isMapped(const struct in6_addr* address) {
  return address->in6_u.u6_addr32[0] == 0 && address->in6_u.u6_addr32[1] == 0 &&
         address->in6_u.u6_addr32[2] == __builtin_bswap32(0xffff);
}

INLINE void describeConnection(struct Slot* slot, struct tcp_sock* connection) {
  struct sock* const socket = &connection->inet_conn.icsk_inet.sk;
  struct sock_common* const common = &socket->__sk_common;
  if (common->skc_family == kIPv6 && !isMapped(&common->skc_v6_daddr)) {
    slot->family = kIPv6;
    slot->source[0] = (u64)common->skc_v6_rcv_saddr.in6_u.u6_addr32[1] << 32 |
                      common->skc_v6_rcv_saddr.in6_u.u6_addr32[0];
    slot->source[1] = (u64)common->skc_v6_rcv_saddr.in6_u.u6_addr32[3] << 32 |
                      common->skc_v6_rcv_saddr.in6_u.u6_addr32[2];
    slot->destination[0] = (u64)common->skc_v6_daddr.in6_u.u6_addr32[1] << 32 |
                           common->skc_v6_daddr.in6_u.u6_addr32[0];
    slot->destination[1] = (u64)common->skc_v6_daddr.in6_u.u6_addr32[3] << 32 |
                           common->skc_v6_daddr.in6_u.u6_addr32[2];
  } else {
    slot->family = kIPv4;
    slot->source[0] = common->skc_rcv_saddr;
    slot->destination[0] = common->skc_daddr;
  }
  slot->sourcePort = common->skc_num;
  slot->destinationPort = __builtin_bswap16(common->skc_dport);
  slot->initialSequence = connection->write_seq;
  slot->socketUser = socket->sk_uid.val;
  slot->cgroup = socket->sk_cgrp_data.cgroup->kn->id;
  slot->boundInterface = (u32)common->skc_bound_dev_if;
}

// Must match ConnectTable.cpp.
INLINE u32 setOf(const struct State* state, const struct Slot* slot) {
  u64 hash = mix(state->seed, slot->source[0] ^ slot->source[1]);
  hash = mix(hash, slot->destination[0] ^ slot->destination[1]);
  hash = mix(hash, (u64)slot->sourcePort << 16 | slot->destinationPort);
  return (u32)(hash % kSets);
}

// Claims the slot that was written least often, which is usually the oldest. Null if other
// processors are writing all slots of the set.
INLINE struct Slot* claim(struct Set* set) {
#pragma unroll
  for (int attempt = 0; attempt < kWays; ++attempt) {
    struct Slot* oldest = &set->ways[0];
    u64 least = ~0ULL;
#pragma unroll
    for (int way = 0; way < kWays; ++way) {
      const u64 sequence = *(volatile u64*)&set->ways[way].sequence;
      if ((sequence & 1) == 0 && sequence < least) {
        least = sequence;
        oldest = &set->ways[way];
      }
    }
    if (least == ~0ULL) {
      return 0;
    }
    if (__sync_val_compare_and_swap(&oldest->sequence, least, least + 1) == least) {
      return oldest;
    }
  }
  return 0;
}

// The sequence is even again, after everything has been written: the exchange is a full barrier.
INLINE void release(struct Slot* slot, u64 sequence) {
  __sync_val_compare_and_swap(&slot->sequence, sequence, sequence + 1);
}

INLINE void publish(void* context, struct State* state, struct tcp_sock* connection) {
  const u64 cookie = socketCookie(context);
  struct task_struct* const task = currentTask();
  const struct Record* const record = lookupElement(&processes, &cookie);
  // Another process connected the socket, or the kernel did, for a further path of an MPTCP
  // connection.
  if (record == 0 || !isConnector(record, task)) {
    return;
  }
  struct Slot own = {};
  own.cookie = cookie;
  own.record = *record;
  own.programChanges = state->programChanges[(u32)task->tgid % kProgramCounters];
  own.place = placeOf(state, task);
  describeConnection(&own, connection);
  const u32 index = setOf(state, &own);
  struct Set* const set = lookupElement(&connects, &index);
  if (set == 0) {
    return;
  }
  struct Slot* const slot = claim(set);
  if (slot == 0) {
    return;
  }
  own.sequence = slot->sequence;
  *slot = own;
  release(slot, own.sequence);
}

// True if the packets of a socket are never offered, so that nobody looks for their sender. Most of
// these are of the extension and the proxy, two for each tunnel.
INLINE int isLeftOut(const struct State* state, const struct tcp_sock* connection) {
  return state->leavesOutMarked != 0 &&
         (connection->inet_conn.icsk_inet.sk.sk_mark & state->markMask) != 0;
}

SECTION("sockops") int operate(struct SocketOperation* context) {
  const u32 operation = context->operation;
  if (operation != kTCPConnect && operation != kTCPListen) {
    return kNoDecision;
  }
  struct State* const state = findState();
  void* const socket = context->socket;
  if (state == 0 || socket == 0) {
    return kNoDecision;
  }
  struct tcp_sock* const connection = toTCPSocket(socket);
  if (connection == 0 ||
      connection->inet_conn.icsk_inet.sk.__sk_common.skc_net.net->net_cookie != state->network) {
    return kNoDecision;
  }
  if (operation == kTCPConnect) {
    if (!isLeftOut(state, connection)) {
      publish(context, state, connection);
    }
  } else if (connection->inet_conn.icsk_inet.sk.__sk_common.skc_num == state->proxyPort) {
    __sync_fetch_and_add(&state->listenerChanges, 1);
  }
  return kNoDecision;
}

// True if the extension has decided that this very process belongs to the local proxy. A child, or
// the same process with another program or user, needs a new decision.
INLINE int isOfProxy(void* context, const struct State* state, struct task_struct* task) {
  const u32 process = (u32)task->tgid;
  const struct Marked* const decided = lookupElement(&marked, &process);
  if (decided == 0 || decided->listenerChanges != state->listenerChanges) {
    return 0;
  }
  // The tracer, which was attached first, has just recorded this connect.
  const u64 cookie = socketCookie(context);
  const struct Record* const record = lookupElement(&processes, &cookie);
  return record != 0 && isConnector(record, task) && areEqual(record, &decided->record);
}

INLINE int prepare(struct Connect* context) {
  struct State* const state = findState();
  if (state == 0 || state->markMask == 0) {
    return kAllow;
  }
  struct task_struct* const task = currentTask();
  const int isOwn = task->tgid == (int)state->extension;
  if ((!isOwn && !isOfProxy(context, state, task)) || networkCookie(context) != state->network) {
    return kAllow;
  }
  u32 mark = context->socket->mark;
  // Do not replace bits that the program itself has set.
  if ((mark & state->markMask) == 0) {
    mark |= state->mark;
    setOption(context, kSocketLevel, kMark, &mark, sizeof mark);
  }
  if (isOwn && context->socket->type == kStream) {
    int on = 1;
    setOption(context, kTCPLevel, kNoDelay, &on, sizeof on);
  }
  return kAllow;
}

SECTION("cgroup/connect4") int connect4(struct Connect* context) {
  return prepare(context);
}

SECTION("cgroup/connect6") int connect6(struct Connect* context) {
  return prepare(context);
}

// Precedes the effect of a new state: a new listener is counted before it can be reached. The
// states of accepted connections also change from listening, but not to closed.
SECTION("tp_btf/inet_sock_set_state") int changeState(u64* arguments) {
  const int before = (int)arguments[1];
  const int after = (int)arguments[2];
  if (after != kStateListening && (before != kStateListening || after != kStateClosed)) {
    return 0;
  }
  const struct sock* const socket = (const void*)arguments[0];
  struct State* const state = findState();
  if (state == 0 || socket->__sk_common.skc_net.net->net_cookie != state->network) {
    return 0;
  }
  const u32 port = socket->__sk_common.skc_num;
  // The kernel has yet to choose a port, or has already taken it back.
  if (port == state->proxyPort || port == 0) {
    __sync_fetch_and_add(&state->listenerChanges, 1);
  }
  return 0;
}

SECTION("tp_btf/sched_process_exec") int executed(u64* arguments) {
  const struct task_struct* const task = (const void*)arguments[0];
  struct State* const state = findState();
  if (state != 0) {
    __sync_fetch_and_add(&state->programChanges[(u32)task->tgid % kProgramCounters], 1);
  }
  return 0;
}

SECTION("tp_btf/sched_process_exit") int ended(u64* arguments) {
  const struct task_struct* const task = (const void*)arguments[0];
  const u32 process = (u32)task->tgid;
  struct State* const state = findState();
  // Only a thread has ended, not the process.
  if (state == 0 || task->signal->live.counter != 0) {
    return 0;
  }
  deleteElement(&marked, &process);
  if (state->proxyOwner == process) {
    __sync_fetch_and_add(&state->listenerChanges, 1);
  }
  return 0;
}
