#pragma once

#include <cstddef>
#include <optional>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/allocator_interface.h>
#define OSTRAVEL_EXACT_ALLOCATOR 1
#endif
#endif

namespace ostravel::macos::test {

// Bytes that the program has allocated and not yet freed. Only AddressSanitizer's allocator tells
// exactly; others count what they keep for later as well, and are not asked.
inline std::optional<std::size_t> memoryInUse() {
#ifdef OSTRAVEL_EXACT_ALLOCATOR
  return __sanitizer_get_current_allocated_bytes();
#else
  return std::nullopt;
#endif
}

}  // namespace ostravel::macos::test
