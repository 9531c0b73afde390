#include "Platform/Linux/Services/RandomUUIDSource.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

namespace ostravel::linuxplatform {

namespace {

constexpr std::size_t kUUIDSize = 16;
// The largest request that getrandom(2) always fulfils completely.
constexpr std::size_t kBatchSize = 256;

struct RandomBytes {
  std::array<std::uint8_t, kBatchSize> bytes;
  std::size_t used = kBatchSize;
};

void fetch(RandomBytes& random) {
  ssize_t fetched = 0;
  do {
    fetched = ::getrandom(random.bytes.data(), random.bytes.size(), 0);
  } while (fetched < 0 && errno == EINTR);
  if (fetched != static_cast<ssize_t>(random.bytes.size())) {
    // Every supported kernel has the call, and repeated identifiers would mix up tunnels.
    std::abort();
  }
  random.used = 0;
}

}  // namespace

// RFC 4122, sections 3 and 4.4.
std::string RandomUUIDSource::randomUUID() {
  thread_local RandomBytes random;
  if (random.used == kBatchSize) {
    fetch(random);
  }
  const std::span uuid(random.bytes.data() + random.used, kUUIDSize);
  random.used += kUUIDSize;
  constexpr std::uint8_t kVersion4 = 0x40;
  constexpr std::uint8_t kVariant = 0x80;
  uuid[6] = static_cast<std::uint8_t>((uuid[6] & 0x0fU) | kVersion4);
  uuid[8] = static_cast<std::uint8_t>((uuid[8] & 0x3fU) | kVariant);

  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text = "00000000-0000-0000-0000-000000000000";
  std::size_t at = 0;
  for (const std::uint8_t byte : uuid) {
    if (text[at] == '-') {
      ++at;
    }
    text[at++] = kDigits[byte >> 4U];
    text[at++] = kDigits[byte & 0xfU];
  }
  return text;
}

}  // namespace ostravel::linuxplatform
