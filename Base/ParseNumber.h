#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace ostravel {

// The whole text as a number, in digits of that base. Empty for anything else, such as spaces, a
// plus sign, or a number that the type cannot hold.
template <typename Number>
std::optional<Number> parseNumber(std::string_view text, int base = 10) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number, base);
  return parsed.ec == std::errc() && parsed.ptr == end ? std::optional(number) : std::nullopt;
}

}  // namespace ostravel
