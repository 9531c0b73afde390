// The parts of the kernel's interface (bpf(2), bpf-helpers(7)) that several programs use, declared
// here so that no kernel headers have to be installed. The licence applies to all of them.

typedef unsigned int u32;
typedef unsigned long long u64;

#define INLINE static inline __attribute__((always_inline))
#define SECTION(name) __attribute__((section(name), used))
// Structures of the kernel are declared in each program with the fields that it reads; the loader
// finds their offsets in the running kernel.
#define KERNEL_TYPE __attribute__((preserve_access_index))

enum {
  kMapTypeLRUHash = 9,
  kUpdateAny = 0,
};

static void* (*const lookupElement)(void* map, const void* key) = (void*)1;
static long (*const updateElement)(void* map, const void* key, const void* value,
                                   u64 flags) = (void*)2;
static long (*const deleteElement)(void* map, const void* key) = (void*)3;

char licence[] SECTION("license") = "Dual MIT/GPL";
