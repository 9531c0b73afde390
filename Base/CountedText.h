#pragma once

#include <cstdint>
#include <string>

namespace ostravel {

// "1 flow", "0 flows": for nouns whose plural has an s.
inline std::string counted(std::uint64_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace ostravel
