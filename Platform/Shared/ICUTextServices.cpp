#include "Platform/Shared/ICUTextServices.h"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/stringpiece.h>
#include <unicode/uchar.h>

#include <algorithm>
#include <cstdint>
#include <limits>

#include "Base/UTF8.h"

namespace ostravel::platform {

namespace {

// Every byte of a character beyond ASCII has the highest bit.
bool isASCII(char byte) {
  return static_cast<unsigned char>(byte) < 0x80;
}

bool isVisibleASCII(char byte) {
  return byte > ' ' && byte < '\x7F';
}

bool isWhiteSpace(const CodePoint& character) {
  return character.valid && u_isUWhiteSpace(static_cast<UChar32>(character.value)) != 0;
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
  // The usual case.
  if (!text.empty() && isVisibleASCII(text.front()) && isVisibleASCII(text.back())) {
    return text;
  }
  while (!text.empty() && isWhiteSpace(firstCodePoint(text))) {
    text.remove_prefix(firstCodePoint(text).size);
  }
  while (!text.empty() && isWhiteSpace(lastCodePoint(text))) {
    text.remove_suffix(lastCodePoint(text).size);
  }
  return text;
}

}  // namespace ostravel::platform
