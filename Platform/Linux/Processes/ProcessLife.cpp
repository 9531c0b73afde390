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
constexpr std::size_t kFileSize = 2048;

}  // namespace

ProcessLife::ProcessLife(pid_t pid, std::uint64_t startTime)
    : ProcessLife(FileDescriptor(::open(("/proc/" + std::to_string(pid) + "/stat").c_str(),
                                        O_RDONLY | O_CLOEXEC)),
                  startTime) {}

bool ProcessLife::hasEnded() const {
  std::array<char, kFileSize> text;
  // From the beginning, so the kernel writes it anew. Fails if there is no such process any more.
  const auto length =
      state_ && state_->isOpen() ? ::pread(state_->get(), text.data(), text.size(), 0) : -1;
  if (length <= 0) {
    return true;
  }
  const std::string content(text.data(), static_cast<std::size_t>(length));
  // The name in parentheses may contain anything, also line breaks; field 3 follows it. Without a
  // line break at the end, it may be cut short.
  const auto nameEnd = content.rfind(')');
  if (nameEnd == std::string::npos || content.find('\n', nameEnd) != content.size() - 1) {
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
