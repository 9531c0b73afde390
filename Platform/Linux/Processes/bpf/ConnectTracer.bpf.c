// Remembers which process has connected a socket, or has sent on it without connecting it. Attached
// to the root of the control groups, so it sees every process; it lets everything pass.
//
// Everything that is needed of the kernel's interface is written down here (bpf(2),
// bpf-helpers(7)), so that no kernel headers have to be installed.
//
// Compiled twice. With TRACE_PROGRAMS it also remembers which program the process was running at
// that moment; it reads the kernel's own structures for that, which takes a kernel that describes
// them (/sys/kernel/btf/vmlinux, Linux 5.11) and a helper that is reserved for programs under a
// licence that is compatible with the GPL: hence the licence below, which is that of this file.
// Without TRACE_PROGRAMS it works on older kernels, and no helper asks for a licence.

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

// ConnectTracer.cpp has the same.
struct Record {
  u32 process;
  // The following are 0 where programs are not traced.
  u32 user;
  u32 effectiveUser;
  // As the kernel numbers it: 12 bits of major, 20 bits of minor number.
  u32 executableDevice;
  u64 executableInode;
  // Of the first thread, in nanoseconds since the machine started.
  u64 startTime;
  u64 stackStart;
};

// The form in which libbpf takes the description of a map: each number as the size of an array.
struct {
  int (*type)[kMapTypeLRUHash];
  u64* key;
  struct Record* value;
  int (*max_entries)[kMaximumSockets];
} processes __attribute__((section(".maps"), used));

#ifdef TRACE_PROGRAMS

// The fields that are read. The loader finds out where they are in the running kernel.
#define KERNEL_TYPE __attribute__((preserve_access_index))

typedef struct {
  u32 val;
} kuid_t;

struct cred {
  kuid_t uid;
  kuid_t euid;
} KERNEL_TYPE;

struct super_block {
  u32 s_dev;
} KERNEL_TYPE;

struct inode {
  struct super_block* i_sb;
  unsigned long i_ino;
} KERNEL_TYPE;

struct file {
  struct inode* f_inode;
} KERNEL_TYPE;

struct mm_struct {
  unsigned long start_stack;
  struct file* exe_file;
} KERNEL_TYPE;

struct task_struct {
  struct mm_struct* mm;
  struct task_struct* group_leader;
  u64 start_boottime;
  const struct cred* cred;
} KERNEL_TYPE;

static struct task_struct* (*const currentTask)(void) = (void*)158;

char licence[] __attribute__((section("license"), used)) = "Dual MIT/GPL";

static inline __attribute__((always_inline)) void describeProgram(struct Record* record) {
  const struct task_struct* const task = currentTask();
  record->user = task->cred->uid.val;
  record->effectiveUser = task->cred->euid.val;
  record->startTime = task->group_leader->start_boottime;
  const struct mm_struct* const memory = task->mm;
  // The kernel's own threads run no program.
  if (memory == 0) {
    return;
  }
  record->stackStart = memory->start_stack;
  const struct file* const executable = memory->exe_file;
  if (executable == 0) {
    return;
  }
  record->executableInode = executable->f_inode->i_ino;
  record->executableDevice = executable->f_inode->i_sb->s_dev;
}

#else

static inline __attribute__((always_inline)) void describeProgram(struct Record* record) {
  (void)record;
}

#endif

static inline __attribute__((always_inline)) int areEqual(const struct Record* one,
                                                          const struct Record* other) {
  return one->process == other->process && one->user == other->user &&
         one->effectiveUser == other->effectiveUser &&
         one->executableDevice == other->executableDevice &&
         one->executableInode == other->executableInode && one->startTime == other->startTime &&
         one->stackStart == other->stackStart;
}

static inline __attribute__((always_inline)) int remember(void* context) {
  const u64 cookie = socketCookie(context);
  struct Record record = {};
  record.process = (u32)(currentProcessAndThread() >> 32);
  describeProgram(&record);
  // Who sends again and again without connecting changes nothing, which is cheaper.
  const struct Record* const known = lookupElement(&processes, &cookie);
  if (known == 0 || !areEqual(known, &record)) {
    updateElement(&processes, &cookie, &record, kUpdateAny);
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
