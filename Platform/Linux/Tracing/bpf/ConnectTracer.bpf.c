// Records which process connected a socket, or sent on it without connecting. Attached to the root
// control group, so it sees every process; it permits everything.
//
// Compiled twice. With TRACE_PROGRAMS it also records which program the process was running at that
// moment. For that it reads the kernel's own structures, which requires a kernel with type
// information (/sys/kernel/btf/vmlinux, Linux 5.11) and a helper that is reserved for programs
// under a GPL-compatible licence: hence the licence in KernelInterface.bpf.h, which applies to this
// file too. Without TRACE_PROGRAMS it runs on older kernels, and no helper requires a licence.

#include "ConnectRecord.bpf.h"

static u64 (*const currentProcessAndThread)(void) = (void*)14;

#ifdef TRACE_PROGRAMS

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

INLINE void describeProgram(struct Record* record) {
  const struct task_struct* const task = currentTask();
  record->user = task->cred->uid.val;
  record->effectiveUser = task->cred->euid.val;
  record->startTime = task->group_leader->start_boottime;
  const struct mm_struct* const memory = task->mm;
  // Kernel threads run no program.
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

INLINE void describeProgram(struct Record* record) {
  (void)record;
}

#endif

INLINE int remember(void* context) {
  const u64 cookie = socketCookie(context);
  struct Record record = {};
  record.process = (u32)(currentProcessAndThread() >> 32);
  describeProgram(&record);
  // A process that sends repeatedly without connecting leaves the record unchanged, which is
  // cheaper.
  const struct Record* const known = lookupElement(&processes, &cookie);
  if (known == 0 || !areEqual(known, &record)) {
    updateElement(&processes, &cookie, &record, kUpdateAny);
  }
  return kAllow;
}

SECTION("cgroup/connect4") int connect4(void* context) {
  return remember(context);
}

SECTION("cgroup/connect6") int connect6(void* context) {
  return remember(context);
}

SECTION("cgroup/sendmsg4") int sendmsg4(void* context) {
  return remember(context);
}

SECTION("cgroup/sendmsg6") int sendmsg6(void* context) {
  return remember(context);
}
