// Records which script a process runs: the path with which execve(2) was called, if the kernel has
// started an interpreter for it. Only the kernel knows it for certain; a process can overwrite its
// arguments. Changes nothing.
//
// The helpers that read the kernel's memory are reserved for programs under a GPL-compatible
// licence: hence the licence in KernelInterface.bpf.h.

#include "KernelInterface.bpf.h"

enum {
  // Must match ScriptTracer.cpp.
  kPathSize = 256,
  // Limit on processes that run scripts; the map drops the least recently used.
  kMaximumScripts = 4096,
};

static long (*const readText)(void* into, u32 size, const void* from) = (void*)115;

// Must match ScriptTracer.cpp.
struct Script {
  // Identify the process and its program, as in ConnectRecord.bpf.h.
  u64 startTime;
  u64 stackStart;
  u64 rootInode;
  // Of the working folder.
  u64 folderInode;
  // The kernel's encoding.
  u32 rootDevice;
  u32 folderDevice;
  u32 mountNamespace;
  // The interpreter is env(1), which executes the real one next.
  u32 isLaunching;
  u32 isByEnv;
  u32 unused;
  char path[kPathSize];
};

// The key is the process number. In libbpf's form of a map description, each number is the size of
// an array.
struct {
  int (*type)[kMapTypeLRUHash];
  u32* key;
  struct Script* value;
  int (*max_entries)[kMaximumScripts];
} scripts SECTION(".maps");

struct super_block {
  u32 s_dev;
} KERNEL_TYPE;

struct inode {
  struct super_block* i_sb;
  unsigned long i_ino;
} KERNEL_TYPE;

struct dentry {
  struct inode* d_inode;
} KERNEL_TYPE;

struct path {
  struct dentry* dentry;
} KERNEL_TYPE;

struct fs_struct {
  struct path root;
  struct path pwd;
} KERNEL_TYPE;

struct ns_common {
  u32 inum;
} KERNEL_TYPE;

struct mnt_namespace {
  struct ns_common ns;
} KERNEL_TYPE;

struct nsproxy {
  struct mnt_namespace* mnt_ns;
} KERNEL_TYPE;

struct mm_struct {
  unsigned long start_stack;
} KERNEL_TYPE;

struct task_struct {
  struct mm_struct* mm;
  struct task_struct* group_leader;
  struct nsproxy* nsproxy;
  struct fs_struct* fs;
  int tgid;
  u64 start_boottime;
} KERNEL_TYPE;

struct linux_binprm {
  const char* filename;
  const char* interp;
} KERNEL_TYPE;

INLINE int isEnv(const char* interpreter) {
  char text[16] = {};
  const char usual[16] = "/usr/bin/env";
  const char old[16] = "/bin/env";
  readText(text, sizeof text, interpreter);
  const u64* const words = (const void*)text;
  const u64* const usualWords = (const void*)usual;
  const u64* const oldWords = (const void*)old;
  return (words[0] == usualWords[0] && words[1] == usualWords[1]) ||
         (words[0] == oldWords[0] && words[1] == oldWords[1]);
}

SECTION("tp_btf/sched_process_exec") int executed(u64* arguments) {
  const struct task_struct* const task = (const void*)arguments[0];
  const struct linux_binprm* const program = (const void*)arguments[2];
  const u32 process = (u32)task->tgid;
  const char* const filename = program->filename;
  const char* const interpreter = program->interp;
  const struct mm_struct* const memory = task->mm;
  if (memory == 0) {
    return 0;
  }
  // The kernel replaces the second when it starts an interpreter.
  if (filename == interpreter) {
    struct Script* const known = lookupElement(&scripts, &process);
    if (known != 0 && known->isLaunching) {
      known->isLaunching = 0;
      known->stackStart = memory->start_stack;
    } else if (known != 0) {
      deleteElement(&scripts, &process);
    }
    return 0;
  }
  struct Script script = {};
  script.startTime = task->group_leader->start_boottime;
  script.stackStart = memory->start_stack;
  script.mountNamespace = task->nsproxy->mnt_ns->ns.inum;
  const struct inode* const root = task->fs->root.dentry->d_inode;
  script.rootInode = root->i_ino;
  script.rootDevice = root->i_sb->s_dev;
  const struct inode* const folder = task->fs->pwd.dentry->d_inode;
  script.folderInode = folder->i_ino;
  script.folderDevice = folder->i_sb->s_dev;
  script.isByEnv = (u32)isEnv(interpreter);
  script.isLaunching = script.isByEnv;
  // A longer path is recorded as an empty one.
  if (readText(script.path, sizeof script.path, filename) >= (long)sizeof script.path) {
    script.path[0] = 0;
  }
  updateElement(&scripts, &process, &script, kUpdateAny);
  return 0;
}

SECTION("tp_btf/sched_process_fork") int forked(u64* arguments) {
  const struct task_struct* const parent = (const void*)arguments[0];
  const struct task_struct* const child = (const void*)arguments[1];
  const u32 from = (u32)parent->tgid;
  const u32 to = (u32)child->tgid;
  // The new task is a thread of the same process.
  if (from == to) {
    return 0;
  }
  const struct Script* const known = lookupElement(&scripts, &from);
  if (known == 0) {
    return 0;
  }
  struct Script script = *known;
  script.startTime = child->start_boottime;
  updateElement(&scripts, &to, &script, kUpdateAny);
  return 0;
}
