#include "Platform/Shared/ICUTextServices.h"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/stringpiece.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace ostravel::platform {

namespace {

// U+0080 is the first character beyond ASCII, and no byte of such a character is below it.
constexpr unsigned char kFirstBeyondASCII = 0x80;
// The longest encoding of one character.
constexpr std::size_t kLongestCharacter = 4;

bool isASCII(char byte) {
  return static_cast<unsigned char>(byte) < kFirstBeyondASCII;
}

std::string lowercasedASCII(std::string_view text) {
  std::string result(text);
  for (char& byte : result) {
    if (byte >= 'A' && byte <= 'Z') {
      byte = static_cast<char>(byte + ('a' - 'A'));
    }
  }
  return result;
}

bool isWhiteSpace(UChar32 character) {
  return character >= 0 && u_isUWhiteSpace(character) != 0;
}

// Length of the white space character that text begins with; zero when it begins with another one.
std::size_t leadingWhiteSpace(std::string_view text) {
  const auto limit = static_cast<std::int32_t>(std::min(text.size(), kLongestCharacter));
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  std::int32_t length = 0;
  UChar32 character = 0;
  U8_NEXT(bytes, length, limit, character);
  return isWhiteSpace(character) ? static_cast<std::size_t>(length) : 0;
}

// The same for the character that text ends with.
std::size_t trailingWhiteSpace(std::string_view text) {
  const auto limit = static_cast<std::int32_t>(std::min(text.size(), kLongestCharacter));
  const auto tail = text.substr(text.size() - static_cast<std::size_t>(limit));
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(tail.data());
  std::int32_t start = limit;
  UChar32 character = 0;
  U8_PREV(bytes, 0, start, character);
  return isWhiteSpace(character) ? static_cast<std::size_t>(limit - start) : 0;
}

}  // namespace

std::string ICUTextServices::lowercased(std::string_view text) const {
  if (text.size() > std::numeric_limits<std::int32_t>::max() ||
      std::all_of(text.begin(), text.end(), isASCII)) {
    return lowercasedASCII(text);
  }
  constexpr const char* kRootLocale = "";
  std::string result;
  icu::StringByteSink<std::string> sink(&result, static_cast<std::int32_t>(text.size()));
  UErrorCode status = U_ZERO_ERROR;
  icu::CaseMap::utf8ToLower(kRootLocale, 0,
                            icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())),
                            sink, nullptr, status);
  return U_SUCCESS(status) ? result : lowercasedASCII(text);
}

std::string_view ICUTextServices::trimmed(std::string_view text) const {
  while (!text.empty()) {
    const auto length = leadingWhiteSpace(text);
    if (length == 0) {
      break;
    }
    text.remove_prefix(length);
  }
  while (!text.empty()) {
    const auto length = trailingWhiteSpace(text);
    if (length == 0) {
      break;
    }
    text.remove_suffix(length);
  }
  return text;
}

}  // namespace ostravel::platform
