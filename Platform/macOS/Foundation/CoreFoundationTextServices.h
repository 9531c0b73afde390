#pragma once

#include "Platform/Interface/TextServices.h"

namespace ostravel::macos {

// Text services from the tables of Core Foundation, through its bridged NSString and
// NSCharacterSet. White space is the system's set, which may include U+200B. Bytes that are not
// valid UTF-8 are kept and are not white space. Has no state.
class CoreFoundationTextServices final : public platform::TextServices {
 public:
  // In text that is not valid UTF-8, only the ASCII letters are lower-cased.
  std::string lowercased(std::string_view text) const override;
  std::string_view trimmed(std::string_view text) const override;
};

}  // namespace ostravel::macos
