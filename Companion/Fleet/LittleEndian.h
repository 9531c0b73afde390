#pragma once

#include <zlib.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ostravel::companion {

// Numbers and checksums in the format of a spool's files, which is independent of the machine, so
// that a spool can be moved to another one.

template <std::unsigned_integral Number>
void appendLittleEndian(std::string& bytes, Number number) {
  for (std::size_t index = 0; index < sizeof(Number); ++index) {
    bytes += static_cast<char>((number >> (8 * index)) & 0xFFU);
  }
}

// Decodes the first bytes; there must be enough.
template <std::unsigned_integral Number>
Number littleEndian(std::string_view bytes) {
  Number number = 0;
  for (std::size_t index = 0; index < sizeof(Number); ++index) {
    number |= static_cast<Number>(static_cast<Number>(static_cast<unsigned char>(bytes[index]))
                                  << (8 * index));
  }
  return number;
}

// CRC-32 of both, concatenated.
inline std::uint32_t checksum(std::string_view first, std::string_view second = {}) {
  uLong sum = ::crc32_z(0, nullptr, 0);
  for (const std::string_view part : {first, second}) {
    // Skip empty parts: zlib takes a null pointer for a request to start again.
    sum = part.empty() ? sum
                       : ::crc32_z(sum, reinterpret_cast<const Bytef*>(part.data()), part.size());
  }
  return static_cast<std::uint32_t>(sum);
}

}  // namespace ostravel::companion
