#pragma once

#include <string>
#include <string_view>

namespace ostravel::linuxplatform {

// How an application is identified, for status requests.
struct ApplicationDescription {
  // Empty if it has no identifier.
  std::string identifier;
  // One word, of static storage: "proxy", "registration", "path", "name" (see ApplicationNames), or
  // "nothing".
  std::string_view source;
};

}  // namespace ostravel::linuxplatform
