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

// Bytes that the program has allocated and not yet freed. Exact only with AddressSanitizer's
// allocator; others include what they keep for later, and are not asked.
inline std::optional<std::size_t> memoryInUse() {
#ifdef OSTRAVEL_EXACT_ALLOCATOR
  return __sanitizer_get_current_allocated_bytes();
#else
  return std::nullopt;
#endif
}

}  // namespace ostravel::macos::test
