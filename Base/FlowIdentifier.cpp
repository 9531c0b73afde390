#include "Base/FlowIdentifier.h"

#include <array>
#include <optional>

namespace ostravel {

namespace {

// "6F9619FF-8B86-4011-B42D-00CF4FC964FF" (RFC 9562, section 4).
constexpr std::size_t kTextSize = 36;
constexpr std::string_view kDigits = "0123456789ABCDEF";
constexpr std::size_t kVersionPlace = 14;

// Groups of digits, each followed by a hyphen except the last, and the half that they belong to.
struct Group {
  std::size_t begin;
  std::size_t size;
  std::size_t half;
};
constexpr std::array<Group, 5> kGroups{{{0, 8, 0}, {9, 4, 0}, {14, 4, 0}, {19, 4, 1}, {24, 12, 1}}};

constexpr std::uint8_t kNoDigit = 0xFF;

// Only capitals, so that the text can be restored exactly as it was written.
constexpr std::array<std::uint8_t, 256> makeDigitValues() {
  std::array<std::uint8_t, 256> values{};
  values.fill(kNoDigit);
  for (std::size_t value = 0; value < kDigits.size(); ++value) {
    values[static_cast<unsigned char>(kDigits[value])] = static_cast<std::uint8_t>(value);
  }
  return values;
}
constexpr auto kDigitValues = makeDigitValues();

std::optional<std::array<std::uint64_t, 2>> bitsOf(std::string_view text) {
  if (text.size() != kTextSize || text[kVersionPlace] != '4') {
    return std::nullopt;
  }
  std::array<std::uint64_t, 2> halves{};
  unsigned combined = 0;
  for (const Group& group : kGroups) {
    const std::size_t end = group.begin + group.size;
    if (end < kTextSize && text[end] != '-') {
      return std::nullopt;
    }
    std::uint64_t half = halves[group.half];
    for (std::size_t place = group.begin; place < end; ++place) {
      const std::uint8_t value = kDigitValues[static_cast<unsigned char>(text[place])];
      combined |= value;
      half = half << 4U | value;
    }
    halves[group.half] = half;
  }
  // Only kNoDigit has a higher bit.
  return combined > 0xF ? std::nullopt : std::optional(halves);
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
  std::array<char, kTextSize> text{};
  text.fill('-');
  std::array<std::uint64_t, 2> halves{high_, low_};
  for (auto group = kGroups.rbegin(); group != kGroups.rend(); ++group) {
    std::uint64_t left = halves[group->half];
    for (std::size_t place = group->begin + group->size; place > group->begin; --place) {
      text[place - 1] = kDigits[left & 0xFU];
      left >>= 4U;
    }
    halves[group->half] = left;
  }
  return {text.data(), text.size()};
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
