#include "Platform/Simulation/Schedule/SimulatedUUIDSource.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ostravel::simulation {

// RFC 4122, section 4.4. M is the version, 4; the two high bits of N are the variant, 10.
//
//   XXXXXXXX-XXXX-MXXX-NXXX-XXXXXXXXXXXX
std::string SimulatedUUIDSource::randomUUID() {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  constexpr std::size_t kDigitsPerDraw = 16;
  constexpr std::size_t kVersion = 14;
  constexpr std::size_t kVariant = 19;
  std::string uuid = "00000000-0000-0000-0000-000000000000";
  std::uint64_t drawn = 0;
  std::size_t digits = 0;
  for (std::size_t i = 0; i < uuid.size(); ++i) {
    if (uuid[i] == '-') {
      continue;
    }
    if (digits++ % kDigitsPerDraw == 0) {
      drawn = random_.next();
    }
    auto digit = drawn % kDigits.size();
    drawn /= kDigits.size();
    if (i == kVersion) {
      digit = 4;
    }
    if (i == kVariant) {
      digit = 8 | (digit & 3U);
    }
    uuid[i] = kDigits[digit];
  }
  return uuid;
}

}  // namespace ostravel::simulation
