#include "Platform/Linux/Processes/UserName.h"

#include <pwd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <memory>

namespace ostravel::linuxplatform {

namespace {

// Longer than any line of /etc/passwd.
constexpr std::size_t kLineSize = 4096;

struct Close {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

std::string nameOfUser(uid_t user) {
  const std::unique_ptr<std::FILE, Close> file(std::fopen("/etc/passwd", "re"));
  std::array<char, kLineSize> line;
  passwd entry{};
  passwd* found = nullptr;
  while (file && ::fgetpwent_r(file.get(), &entry, line.data(), line.size(), &found) == 0) {
    if (entry.pw_uid == user) {
      return entry.pw_name;
    }
  }
  return std::to_string(user);
}

}  // namespace ostravel::linuxplatform
