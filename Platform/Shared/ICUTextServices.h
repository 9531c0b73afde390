#pragma once

#include "Platform/Interface/TextServices.h"

namespace ostravel::platform {

// Text services from the Unicode tables of ICU, without any language's special rules. Bytes that
// are not valid UTF-8 are kept as they are and are not white space. Pure ASCII, which is what host
// names and identifiers nearly always are, never reaches ICU. Has no state.
class ICUTextServices final : public TextServices {
 public:
  // Text longer than 2 GiB, which ICU does not take, has only its ASCII letters lower-cased.
  std::string lowercased(std::string_view text) const override;

  // White space is the Unicode property White_Space: the general category Zs, U+0009 to U+000D,
  // U+0085, U+2028 and U+2029.
  std::string_view trimmed(std::string_view text) const override;
};

}  // namespace ostravel::platform
