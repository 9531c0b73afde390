#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace ostravel::platform {

// Domain of failures whose code is an errno value.
inline constexpr std::string_view kPOSIXErrorDomain = "NSPOSIXErrorDomain";

// A failure as a value: a domain, which defines the code, the code, and a readable sentence.
// Failures cross the seam only in this form; no exception does.
struct Error {
  // The platform's own error object. Opaque to the core, which only passes it on.
  class PlatformObject {
   public:
    PlatformObject() = default;
    PlatformObject(const PlatformObject&) = delete;
    PlatformObject& operator=(const PlatformObject&) = delete;
    virtual ~PlatformObject() = default;
  };

  std::string domain;
  std::int64_t code = 0;
  std::string localizedDescription;
  // The object from which the platform made this value, so that it receives the same object back,
  // with details that the value does not contain. Null for errors that were made as values.
  std::shared_ptr<const PlatformObject> platformObject = nullptr;

  // The platform's object does not count.
  friend bool operator==(const Error& left, const Error& right) {
    return left.domain == right.domain && left.code == right.code &&
           left.localizedDescription == right.localizedDescription;
  }
};

using OptionalError = std::optional<Error>;

// An error of kPOSIXErrorDomain.
inline Error posixError(int code, std::string description) {
  return {std::string(kPOSIXErrorDomain), code, std::move(description)};
}

// The failure of a system call with this errno: what was attempted, and the system's reason.
inline Error systemCallError(int code, std::string_view attempt) {
  return posixError(code, std::string(attempt) + ": " + std::generic_category().message(code));
}

// The default textual description: names domain, code and description.
inline std::string describe(const Error& error) {
  return "Error Domain=" + error.domain + " Code=" + std::to_string(error.code) + " \"" +
         error.localizedDescription + "\"";
}

}  // namespace ostravel::platform
