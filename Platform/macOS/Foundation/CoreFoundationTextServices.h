#pragma once

#include "Platform/Interface/TextServices.h"

namespace ostravel::macos {

// Text services from the tables of Core Foundation, asked for through its bridged NSString and
// NSCharacterSet. White space is what the system's set contains, U+200B possibly among it. Bytes
// that are not valid UTF-8 are kept as they are and are not white space. Has no state.
class CoreFoundationTextServices final : public platform::TextServices {
 public:
  // Of text that is not valid UTF-8 only the ASCII letters are lower-cased.
  std::string lowercased(std::string_view text) const override;
  std::string_view trimmed(std::string_view text) const override;
};

}  // namespace ostravel::macos
