#include "Platform/Linux/Processes/ProcessLife.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform {

namespace {

// Flag of a process that is exiting, set before its descriptors are closed (PF_EXITING of
// linux/sched.h; proc(5), field 9 of stat).
constexpr unsigned kExiting = 0x4;
constexpr std::size_t kFileSize = 1024;

}  // namespace

bool ProcessLife::hasEnded() const {
  const std::string path = "/proc/" + std::to_string(pid_) + "/stat";
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, kFileSize> text;
  const auto length = file.isOpen() ? ::read(file.get(), text.data(), text.size() - 1) : -1;
  if (length <= 0) {
    return true;
  }
  const std::string content(text.data(), static_cast<std::size_t>(length));
  // The name in parentheses may contain anything; field 3 follows it.
  const auto nameEnd = content.rfind(')');
  if (nameEnd == std::string::npos) {
    return true;
  }
  char state = 0;
  unsigned flags = 0;
  unsigned long long startTime = 0;
  const int found =
      std::sscanf(content.c_str() + nameEnd + 1,
                  " %c %*s %*s %*s %*s %*s %u %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu",
                  &state, &flags, &startTime);
  constexpr int kFields = 3;
  return found != kFields || startTime != startTime_ || state == 'Z' || state == 'X' ||
         (flags & kExiting) != 0;
}

}  // namespace ostravel::linuxplatform
