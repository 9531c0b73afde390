// A library for LD_PRELOAD: memory runs out at the n-th allocation of the program and, with a
// second number, at that many of the following ones.
//
//   OSTRAVEL_FAILING_ALLOCATION=N[+COUNT]
//
// Only allocations through glibc's malloc family are counted, not buffers that a program maps
// itself.

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

// The names of glibc's own functions, which a program cannot replace.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

struct Failing {
  unsigned long first = 0;
  unsigned long count = 1;
};

// Without a single allocation.
Failing parsed() {
  Failing failing;
  const char* const text = std::getenv("OSTRAVEL_FAILING_ALLOCATION");
  if (text != nullptr) {
    char* end = nullptr;
    failing.first = std::strtoul(text, &end, 10);
    if (*end == '+') {
      failing.count = 1 + std::strtoul(end + 1, nullptr, 10);
    }
  }
  return failing;
}

std::atomic<unsigned long> allocations{0};

bool fails() {
  static const Failing failing = parsed();
  const unsigned long number = ++allocations;
  const bool isDue = number >= failing.first && number - failing.first < failing.count;
  if (failing.first != 0 && isDue) {
    errno = ENOMEM;
    return true;
  }
  return false;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) noexcept {
  return fails() ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  return fails() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) noexcept {
  return fails() ? nullptr : __libc_realloc(block, size);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
  return fails() ? nullptr : __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return memalign(alignment, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
  *block = memalign(alignment, size);
  return *block == nullptr ? ENOMEM : 0;
}
}
