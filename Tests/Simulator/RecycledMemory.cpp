// The memory of ostravel-simulator. A run allocates and frees some hundred small objects for each
// of its flows, which costs the C library a quarter of the simulator's time; free lists cost far
// less. For a program with one thread, and not for one under a sanitizer, which tracks memory
// itself.

#include <array>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

// A block: its size class, and then what the caller uses. A free block holds the link to the next
// one where the caller's bytes were.
//
//   | size class, padded to the alignment | ... |
constexpr std::size_t kAlignment = alignof(std::max_align_t);
constexpr std::size_t kClasses = 64;
// The first class is for what is larger than the others and belongs to the C library.
constexpr std::size_t kLarge = 0;
constexpr std::size_t kSlabBytes = std::size_t{256} * 1024;

struct alignas(std::max_align_t) Header {
  std::size_t sizeClass;
};

struct FreeBlock {
  FreeBlock* next;
};

struct Memory {
  std::array<FreeBlock*, kClasses> free;
  std::byte* slab;
  std::size_t slabLeft;
};

// Never destroyed: objects of static lifetime are freed after everything else.
constinit Memory memory{};

void* orThrow(void* block) {
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  return block;
}

void* started(void* block, std::size_t sizeClass) {
  auto* const header = static_cast<Header*>(block);
  header->sizeClass = sizeClass;
  return header + 1;
}

void* cutFromSlab(std::size_t bytes) {
  if (memory.slabLeft < bytes) {
    memory.slab = static_cast<std::byte*>(orThrow(std::malloc(kSlabBytes)));
    memory.slabLeft = kSlabBytes;
  }
  void* const block = memory.slab;
  memory.slab += bytes;
  memory.slabLeft -= bytes;
  return block;
}

}  // namespace

void* operator new(std::size_t size) {
  const std::size_t sizeClass = (size + kAlignment - 1) / kAlignment;
  if (sizeClass >= kClasses) {
    return started(orThrow(std::malloc(sizeof(Header) + size)), kLarge);
  }
  // A request for nothing gets a block of its own, too.
  const std::size_t used = sizeClass == kLarge ? 1 : sizeClass;
  if (FreeBlock* const block = memory.free[used]) {
    memory.free[used] = block->next;
    return block;
  }
  return started(cutFromSlab(sizeof(Header) + used * kAlignment), used);
}

void operator delete(void* address) noexcept {
  if (address == nullptr) {
    return;
  }
  Header* const header = static_cast<Header*>(address) - 1;
  if (header->sizeClass == kLarge) {
    std::free(header);
    return;
  }
  auto* const block = static_cast<FreeBlock*>(address);
  block->next = memory.free[header->sizeClass];
  memory.free[header->sizeClass] = block;
}

void operator delete(void* address, std::size_t /*size*/) noexcept {
  operator delete(address);
}
