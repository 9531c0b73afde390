#pragma once

#include <string>
#include <string_view>

namespace ostravel::linuxplatform {

// How an application is identified, for people who ask.
struct ApplicationDescription {
  // Empty if it has no identifier.
  std::string identifier;
  // One word, of static storage: "proxy", "registration", "path", "name" for a name that the system
  // has for it, or "nothing".
  std::string_view source;
};

}  // namespace ostravel::linuxplatform
