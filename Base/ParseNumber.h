#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace ostravel {

// The text as a number in that base. Empty if it contains anything else, such as spaces or a plus
// sign, or if the type cannot represent the number.
template <typename Number>
std::optional<Number> parseNumber(std::string_view text, int base = 10) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number, base);
  return parsed.ec == std::errc() && parsed.ptr == end ? std::optional(number) : std::nullopt;
}

}  // namespace ostravel
