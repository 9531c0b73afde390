#pragma once

#include <string>
#include <string_view>

namespace ostravel::platform {

// Text operations that need the platform's Unicode tables. Text is UTF-8; nothing depends on a
// locale. Usable from any thread.
class TextServices {
 public:
  TextServices() = default;
  TextServices(const TextServices&) = delete;
  TextServices& operator=(const TextServices&) = delete;
  virtual ~TextServices() = default;

  // Full lower-casing of the whole text.
  virtual std::string lowercased(std::string_view text) const = 0;

  // Without the white space and line separators at both ends; a part of the argument.
  virtual std::string_view trimmed(std::string_view text) const = 0;
};

}  // namespace ostravel::platform
