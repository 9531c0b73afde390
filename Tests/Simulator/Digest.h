#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace ostravel::simulator {

// A number that depends on everything that was added and on its order, and on nothing else: not on
// the compiler, its options or the machine. For comparing runs, not for security.
class Digest {
 public:
  void add(std::uint64_t number) {
    value_ = (value_ ^ number) * kMultiplier;
    value_ ^= value_ >> 29U;
  }

  void add(std::string_view text) {
    add(text.size());
    for (std::size_t begin = 0; begin < text.size(); begin += kWordBytes) {
      add(wordOf(text.substr(begin, kWordBytes)));
    }
  }

  std::uint64_t value() const { return value_; }

 private:
  static constexpr std::size_t kWordBytes = 8;
  static constexpr std::uint64_t kMultiplier = 0xff51afd7ed558ccdU;

  // The first byte is the lowest one, even on a big-endian machine.
  static std::uint64_t wordOf(std::string_view bytes) {
    std::uint64_t word = 0;
    if constexpr (std::endian::native == std::endian::little) {
      std::memcpy(&word, bytes.data(), bytes.size());
    } else {
      for (std::size_t i = 0; i < bytes.size(); ++i) {
        word |= std::uint64_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
      }
    }
    return word;
  }

  std::uint64_t value_ = 0x2545f4914f6cdd1dU;
};

inline std::uint64_t digestOf(std::string_view text) {
  Digest digest;
  digest.add(text);
  return digest.value();
}

}  // namespace ostravel::simulator
