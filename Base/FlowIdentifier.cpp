#include "Base/FlowIdentifier.h"

#include <array>
#include <optional>

namespace ostravel {

namespace {

// "6F9619FF-8B86-4011-B42D-00CF4FC964FF" (RFC 9562, section 4).
constexpr std::size_t kTextSize = 36;
constexpr std::string_view kDigits = "0123456789ABCDEF";
constexpr std::size_t kVersionPlace = 14;

constexpr bool isHyphenPlace(std::size_t place) {
  return place == 8 || place == 13 || place == 18 || place == 23;
}

// The text as written: only capitals, so that it can be restored exactly.
std::optional<unsigned> digitOf(char character) {
  if (character >= '0' && character <= '9') {
    return static_cast<unsigned>(character - '0');
  }
  if (character >= 'A' && character <= 'F') {
    return static_cast<unsigned>(character - 'A') + 10;
  }
  return std::nullopt;
}

std::optional<std::array<std::uint64_t, 2>> bitsOf(std::string_view text) {
  if (text.size() != kTextSize || text[kVersionPlace] != '4') {
    return std::nullopt;
  }
  std::array<std::uint64_t, 2> halves{};
  for (std::size_t place = 0; place < kTextSize; ++place) {
    if (isHyphenPlace(place)) {
      if (text[place] != '-') {
        return std::nullopt;
      }
      continue;
    }
    const auto digit = digitOf(text[place]);
    if (!digit) {
      return std::nullopt;
    }
    // The third hyphen separates the halves.
    std::uint64_t& half = halves[place < 18 ? 0 : 1];
    half = half << 4U | *digit;
  }
  return halves;
}

}  // namespace

FlowIdentifier::FlowIdentifier(std::string_view text) {
  if (const auto bits = bitsOf(text)) {
    high_ = (*bits)[0];
    low_ = (*bits)[1];
  } else {
    low_ = reinterpret_cast<std::uintptr_t>(new std::string(text));
  }
}

FlowIdentifier::FlowIdentifier(const FlowIdentifier& other) : high_(other.high_), low_(other.low_) {
  if (const auto* const text = other.otherText()) {
    low_ = reinterpret_cast<std::uintptr_t>(new std::string(*text));
  }
}

FlowIdentifier::~FlowIdentifier() {
  delete otherText();
}

const std::string* FlowIdentifier::otherText() const {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): made from such a pointer
  return high_ == 0 ? reinterpret_cast<const std::string*>(static_cast<std::uintptr_t>(low_))
                    : nullptr;
}

std::string FlowIdentifier::text() const {
  if (high_ == 0) {
    const auto* const other = otherText();
    return other != nullptr ? *other : std::string();
  }
  std::string text(kTextSize, '-');
  auto half = low_;
  for (std::size_t place = kTextSize; place > 0; --place) {
    if (isHyphenPlace(place - 1)) {
      if (place - 1 == 18) {
        half = high_;
      }
      continue;
    }
    text[place - 1] = kDigits[half & 0xFU];
    half >>= 4U;
  }
  return text;
}

bool operator==(const FlowIdentifier& left, const FlowIdentifier& right) {
  if (left.high_ == right.high_ && left.low_ == right.low_) {
    return true;
  }
  return left.high_ == 0 && right.high_ == 0 && left.text() == right.text();
}

std::size_t FlowIdentifier::Hash::operator()(const FlowIdentifier& identifier) const noexcept {
  if (const auto* const text = identifier.otherText()) {
    return std::hash<std::string>{}(*text);
  }
  // Random bits.
  return static_cast<std::size_t>(identifier.high_ ^ identifier.low_);
}

}  // namespace ostravel
