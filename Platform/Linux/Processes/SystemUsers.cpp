#include "Platform/Linux/Processes/SystemUsers.h"

#include <pwd.h>

#include <cerrno>
#include <cstddef>
#include <fstream>
#include <sstream>
#include <string_view>
#include <vector>

#include "Base/ParseNumber.h"

namespace ostravel::linuxplatform {

namespace {

// Longer than any line of passwd(5).
constexpr std::size_t kMaximumEntry = 1024 * 1024;

// Decimal, octal with a leading "0" or hexadecimal with a leading "0x" (login.defs(5)).
std::optional<uid_t> number(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  } else if (text.size() > 1 && text.starts_with('0')) {
    base = 8;
  }
  return parseNumber<uid_t>(text, base);
}

}  // namespace

SystemUsers SystemUsers::read(const std::string& path) {
  std::optional<uid_t> systemMaximum;
  std::optional<uid_t> minimum;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string name;
    std::string value;
    words >> name >> value;
    // A comment matches neither. The last of several lines counts.
    if (name == "SYS_UID_MAX") {
      systemMaximum = number(value);
    } else if (name == "UID_MIN") {
      minimum = number(value);
    }
  }
  if (systemMaximum) {
    return SystemUsers(*systemMaximum);
  }
  return minimum && *minimum > 0 ? SystemUsers(*minimum - 1) : SystemUsers();
}

std::optional<uid_t> SystemUsers::numberOf(const std::string& name) {
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  while (::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < kMaximumEntry) {
    buffer.resize(buffer.size() * 2);
  }
  return found != nullptr ? std::optional(entry.pw_uid) : std::nullopt;
}

}  // namespace ostravel::linuxplatform
