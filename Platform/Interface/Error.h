#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ostravel::platform {

// Domain of failures whose code is an errno value.
inline constexpr std::string_view kPOSIXErrorDomain = "NSPOSIXErrorDomain";

// A failure as a value: who defines the code, the code, and a sentence for people.
// Errors cross the seam only like this; no exception does.
struct Error {
  std::string domain;
  std::int64_t code = 0;
  std::string localizedDescription;

  friend bool operator==(const Error&, const Error&) = default;
};

using OptionalError = std::optional<Error>;

// The default textual description: names domain, code and description.
inline std::string describe(const Error& error) {
  return "Error Domain=" + error.domain + " Code=" + std::to_string(error.code) + " \"" +
         error.localizedDescription + "\"";
}

}  // namespace ostravel::platform
