#pragma once

#include <string>

namespace ostravel::platform {

// Makes identifiers. Usable from any thread.
class UUIDSource {
 public:
  UUIDSource() = default;
  UUIDSource(const UUIDSource&) = delete;
  UUIDSource& operator=(const UUIDSource&) = delete;
  virtual ~UUIDSource() = default;

  // A fresh random UUID (RFC 4122, version 4): 36 characters, upper-case hexadecimal, hyphenated.
  virtual std::string randomUUID() = 0;
};

}  // namespace ostravel::platform
