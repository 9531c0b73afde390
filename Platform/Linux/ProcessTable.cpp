#include "Platform/Linux/ProcessTable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdio>
#include <vector>

#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/SocketHolderSearch.h"
#include "Platform/Linux/Utf8.h"

namespace ostravel::linuxplatform {

namespace {

// Processes that are asked first; few programs make most of the connections.
constexpr std::size_t kMaximumRecentHolders = 8;
// Standard input, output and error, and what a service manager hands over behind them.
constexpr int kInheritedDescriptors = 16;
// Larger than the files of /proc that are read here, but for absurd control group names.
constexpr std::size_t kFileSize = 4096;

std::string pathOf(pid_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

// What fits of a small file, by one read.
std::optional<std::string> contentOf(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, kFileSize> text;
  const auto length = file.isOpen() ? ::read(file.get(), text.data(), text.size()) : -1;
  if (length < 0) {
    return std::nullopt;
  }
  return std::string(text.data(), static_cast<std::size_t>(length));
}

std::optional<std::string> linkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target;
  const auto length = ::readlink(path.c_str(), target.data(), target.size());
  if (length < 0) {
    return std::nullopt;
  }
  return std::string(target.data(), static_cast<std::size_t>(length));
}

// The number that text begins with.
template <typename Number>
Number numberIn(std::string_view text) {
  Number number{};
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

// The rest of the line that begins with prefix.
std::string_view lineBehind(std::string_view text, std::string_view prefix) {
  while (!text.empty()) {
    const auto end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    if (line.starts_with(prefix)) {
      return line.substr(prefix.size());
    }
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return {};
}

// The n-th of the words, which single spaces separate.
std::string_view word(std::string_view text, int n) {
  for (; n > 0; --n) {
    const auto space = text.find(' ');
    if (space == std::string_view::npos) {
      return {};
    }
    text.remove_prefix(space + 1);
  }
  return text.substr(0, text.find(' '));
}

std::optional<FileIdentity> fileAt(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return std::nullopt;
  }
  return FileIdentity{status.st_dev, status.st_ino};
}

bool isInOurFileSystemView(pid_t pid) {
  const auto view = fileAt(pathOf(pid, "ns/mnt"));
  return view && view == fileAt("/proc/self/ns/mnt");
}

void readExecutable(Process& process) {
  const std::string link = pathOf(process.pid, "exe");
  const auto target = linkTarget(link);
  // Whatever is not a path could be taken for another kind of identifier.
  if (!target || !target->starts_with('/')) {
    return;
  }
  constexpr std::string_view kDeleted = " (deleted)";
  std::string_view path = *target;
  if (path.ends_with(kDeleted)) {
    path.remove_suffix(kDeleted.size());
  }
  // A file that was replaced by an update is only told by where it was.
  process.executableFile = fileAt(link);
  process.isExecutableGenuine =
      (process.executableFile && process.executableFile == fileAt(std::string(path))) ||
      isInOurFileSystemView(process.pid);
  process.executable = validUtf8(path);
}

}  // namespace

std::optional<ProcessStamp> ProcessTable::stampOf(pid_t pid) const {
  const auto text = contentOf(pathOf(pid, "stat"));
  // The folder belongs to the process's user, its files do not always.
  struct stat status {};
  if (!text || ::stat(pathOf(pid, "").c_str(), &status) != 0) {
    return std::nullopt;
  }
  // The name in brackets may contain anything; what follows is field 3.
  const auto nameEnd = text->rfind(')');
  if (nameEnd == std::string::npos || nameEnd + 2 > text->size()) {
    return std::nullopt;
  }
  constexpr int kFirstField = 3;
  constexpr int kStartTime = 22;
  constexpr int kStackStart = 28;
  const std::string_view fields = std::string_view(*text).substr(nameEnd + 2);
  return ProcessStamp{
      .startTime = numberIn<std::uint64_t>(word(fields, kStartTime - kFirstField)),
      .stackStart = numberIn<std::uint64_t>(word(fields, kStackStart - kFirstField)),
      .uid = status.st_uid};
}

std::optional<Process> ProcessTable::find(pid_t pid) const {
  const auto stamp = stampOf(pid);
  if (!stamp) {
    return std::nullopt;
  }
  Process process;
  process.pid = pid;
  process.stamp = *stamp;
  readExecutable(process);
  // The unified hierarchy is number 0 and has no controllers (cgroups(7)).
  const auto groups = contentOf(pathOf(pid, "cgroup"));
  process.serviceGroup = serviceGroupOf(lineBehind(groups.value_or(""), "0::"));
  // All of it is about one program, or it is not worth anything.
  if (stampOf(pid) != stamp) {
    return std::nullopt;
  }
  return process;
}

std::optional<pid_t> ProcessTable::holderOf(std::uint32_t inode, uid_t user) {
  if (inode == 0) {
    return std::nullopt;
  }
  SocketHolderSearch search(inode, {recentHolders_.begin(), recentHolders_.end()}, user);
  const SearchBudget budget(kHolderBudget, kLongestHolderSearch);
  if (search.proceed(budget) != SocketHolderSearch::Result::found) {
    return std::nullopt;
  }
  rememberHolder(search.holder());
  return search.holder();
}

void ProcessTable::rememberHolder(pid_t pid) {
  std::erase(recentHolders_, pid);
  recentHolders_.push_front(pid);
  if (recentHolders_.size() > kMaximumRecentHolders) {
    recentHolders_.pop_back();
  }
}

bool ProcessTable::hasInherited(pid_t pid, std::uint32_t inode) const {
  const std::string socket = "socket:[" + std::to_string(inode) + "]";
  for (int descriptor = 0; descriptor < kInheritedDescriptors; ++descriptor) {
    if (linkTarget(pathOf(pid, ("fd/" + std::to_string(descriptor)).c_str())) == socket) {
      return true;
    }
  }
  return false;
}

std::string_view serviceGroupOf(std::string_view controlGroup) {
  // From the innermost group outwards; a service may have groups of its own inside.
  while (!controlGroup.empty()) {
    const std::string_view name = controlGroup.substr(controlGroup.rfind('/') + 1);
    if (name.ends_with(".service")) {
      return name.starts_with("user@") ? std::string_view() : controlGroup;
    }
    if (name.ends_with(".scope") || name.ends_with(".slice")) {
      return {};
    }
    controlGroup.remove_suffix(std::min(controlGroup.size(), name.size() + 1));
  }
  return {};
}

}  // namespace ostravel::linuxplatform
