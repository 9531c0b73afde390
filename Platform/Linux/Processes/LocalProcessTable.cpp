#include "Platform/Linux/Processes/LocalProcessTable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstddef>
#include <system_error>
#include <utility>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Processes/AppImage.h"
#include "Platform/Linux/Processes/RegisteredPaths.h"

namespace ostravel::linuxplatform {

namespace {

// Processes that are checked first; a few programs make most of the connections.
constexpr std::size_t kMaximumRecentHolders = 8;
// Standard input, output and error, and the descriptors that a service manager passes after them.
constexpr int kInheritedDescriptors = 16;
// Larger than the /proc files read here, except with absurd control group names.
constexpr std::size_t kFileSize = 4096;

std::string pathOf(pid_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

// The beginning of a small file, in one read.
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

// The number at the beginning of text; empty if there is none.
template <typename Number>
std::optional<Number> numberIn(std::string_view text) {
  Number number{};
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  return parsed.ec == std::errc() ? std::optional(number) : std::nullopt;
}

// The remainder of the complete line that starts with prefix.
std::string_view lineAfter(std::string_view text, std::string_view prefix) {
  for (auto end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    const std::string_view line = text.substr(0, end);
    if (line.starts_with(prefix)) {
      return line.substr(prefix.size());
    }
    text.remove_prefix(end + 1);
  }
  return {};
}

// The n-th word; words are separated by single spaces.
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

// The part of a stamp that /proc/PID/stat contains.
std::optional<ProcessStamp> programStampOf(pid_t pid) {
  const auto text = contentOf(pathOf(pid, "stat"));
  if (!text) {
    return std::nullopt;
  }
  // The name in parentheses may contain anything, also line breaks; field 3 follows it. Without a
  // line break at the end, it may be cut short.
  const auto nameEnd = text->rfind(')');
  if (nameEnd == std::string::npos || text->find('\n', nameEnd) != text->size() - 1) {
    return std::nullopt;
  }
  constexpr int kFirstField = 3;
  constexpr int kStartTime = 22;
  constexpr int kStackStart = 28;
  const std::string_view fields = std::string_view(*text).substr(nameEnd + 2);
  const auto startTime = numberIn<std::uint64_t>(word(fields, kStartTime - kFirstField));
  const auto stackStart = numberIn<std::uint64_t>(word(fields, kStackStart - kFirstField));
  if (!startTime || !stackStart) {
    return std::nullopt;
  }
  ProcessStamp stamp;
  stamp.startTime = *startTime;
  stamp.stackStart = *stackStart;
  return stamp;
}

// Written by the kernel, which permits no line break in a name.
std::string controlGroupOf(pid_t pid) {
  const auto groups = contentOf(pathOf(pid, "cgroup"));
  // The unified hierarchy is number 0 and has no controllers (cgroups(7)).
  return std::string(lineAfter(groups.value_or(""), "0::"));
}

}  // namespace

LocalProcessTable::LocalProcessTable(std::shared_ptr<SearchAllowance> tableAllowance)
    : ProcessTable(std::move(tableAllowance)), files_(std::make_unique<FileLookup>(allowance())) {}

std::optional<ProcessStamp> LocalProcessTable::stampOf(pid_t pid) const {
  auto stamp = programStampOf(pid);
  const auto status = contentOf(pathOf(pid, "status"));
  if (!stamp || !status) {
    return std::nullopt;
  }
  // The real, the effective and two more users, separated by tabs.
  std::string_view users = lineAfter(*status, "Uid:\t");
  const auto realUser = numberIn<uid_t>(users);
  users.remove_prefix(std::min(users.size(), users.find('\t')));
  const auto user = numberIn<uid_t>(users.substr(std::min<std::size_t>(users.size(), 1)));
  // Never mistake a missing number for root's.
  if (!realUser || !user) {
    return std::nullopt;
  }
  stamp->realUser = *realUser;
  stamp->uid = *user;
  return stamp;
}

std::optional<Process> LocalProcessTable::find(pid_t pid,
                                               std::optional<FileIdentity> executable) const {
  const auto stamp = stampOf(pid);
  if (!stamp) {
    return std::nullopt;
  }
  Process process;
  process.pid = pid;
  process.stamp = *stamp;
  readExecutable(process, executable);
  setControlGroup(process, controlGroupOf(pid));
  // Discard the result unless all of it describes the same program.
  const auto after = programStampOf(pid);
  if (!after || after->startTime != stamp->startTime || after->stackStart != stamp->stackStart) {
    return std::nullopt;
  }
  return process;
}

bool LocalProcessTable::refreshControlGroup(Process& process) const {
  std::string group = controlGroupOf(process.pid);
  const auto stamp = programStampOf(process.pid);
  // It may have ended, and another process may have its number.
  if (group == process.controlGroup || !stamp || stamp->startTime != process.stamp.startTime) {
    return false;
  }
  setControlGroup(process, std::move(group));
  return true;
}

void LocalProcessTable::setControlGroup(Process& process, std::string group) {
  process.controlGroup = std::move(group);
  process.serviceGroup = serviceGroupOf(process.controlGroup);
}

bool LocalProcessTable::refreshExecutable(Process& process,
                                          std::optional<FileIdentity> executable) const {
  // Only the link of /proc/PID/exe shows that a file was removed or renamed.
  const auto link = linkTarget(pathOf(process.pid, "exe"));
  if (!link || (process.isExecutableSettled && *link == process.executableLink &&
                process.mountGeneration == files_->generation())) {
    return false;
  }
  readExecutable(process, executable);
  return true;
}

void LocalProcessTable::readExecutable(Process& process,
                                       std::optional<FileIdentity> executable) const {
  process.isExecutableGenuine = false;
  process.isExecutableDeleted = false;
  process.isExecutableSettled = true;
  process.mountGeneration = files_->generation();
  process.executableLink = linkTarget(pathOf(process.pid, "exe")).value_or("");
  process.executable.clear();
  process.executableFile = executable;
  // Text that is not a path could be mistaken for another kind of identifier.
  if (!process.executableLink.starts_with('/')) {
    return;
  }
  process.executable = process.executableLink;
  const uid_t user = process.stamp.realUser;
  if (!executable) {
    const auto answer = files_->executableOf(process.pid, user);
    process.isExecutableSettled = answer.isKnown;
    process.executableFile = answer.file;
  }
  if (process.executableFile) {
    const auto answer = files_->at(process.executableLink, user);
    process.isExecutableSettled = process.isExecutableSettled && answer.isKnown;
    process.isExecutableGenuine = answer.isKnown && answer.file == process.executableFile;
  }
  constexpr std::string_view kDeleted = " (deleted)";
  if (!process.isExecutableGenuine && process.executable.ends_with(kDeleted)) {
    process.executable.resize(process.executable.size() - kDeleted.size());
    process.isExecutableDeleted = true;
  }
}

std::optional<std::string> LocalProcessTable::workingFolderOf(const Process& process,
                                                              const FileIdentity& expected) const {
  auto path = linkTarget(pathOf(process.pid, "cwd"));
  // The kernel writes "(unreachable)" before a folder outside of our root.
  if (!path || !path->starts_with('/') ||
      files_->at(*path, process.stamp.realUser).file != expected) {
    return std::nullopt;
  }
  return path;
}

std::optional<std::string> LocalProcessTable::appImageOf(const Process& process) const {
  return linuxplatform::appImageOf(process);
}

std::optional<ProcessLife> LocalProcessTable::lifeOf(const Process& process) const {
  ProcessLife life(process.pid, process.stamp.startTime);
  return life.hasEnded() ? std::nullopt : std::optional(std::move(life));
}

std::optional<CommonView> LocalProcessTable::commonView() const {
  struct stat view {};
  // In some sandboxes the first process is hidden. Our own mount namespace may be another one, but
  // its root folder is the same.
  if (::stat("/proc/1/ns/mnt", &view) != 0 && ::stat("/proc/self/ns/mnt", &view) != 0) {
    return std::nullopt;
  }
  const auto root = files_->at("/", 0).file;
  return root ? std::optional(CommonView{*root, view.st_ino}) : std::nullopt;
}

std::vector<std::optional<std::string>> LocalProcessTable::problemsWith(
    const std::vector<std::string>& paths) const {
  return RegisteredPaths::problemsWith(paths);
}

std::optional<pid_t> LocalProcessTable::holderOf(std::uint32_t inode, uid_t user,
                                                 std::optional<pid_t> candidate) {
  if (inode == 0) {
    return std::nullopt;
  }
  std::vector<pid_t> first(recentHolders_.begin(), recentHolders_.end());
  if (candidate) {
    first.insert(first.begin(), *candidate);
  }
  const SearchAllowance::Charge charge(allowance(), user, SearchAllowance::Counted::work);
  SocketHolderSearch search(inode, std::move(first), user);
  const SearchBudget budget(kHolderBudget, kLongestHolderSearch);
  if (search.proceed(budget) != HolderSearchStep::Result::found) {
    return std::nullopt;
  }
  rememberHolder(search.holder());
  return search.holder();
}

HolderSearchStep LocalProcessTable::proceed(const HolderSearch& search,
                                            std::optional<pid_t> preferred,
                                            std::chrono::milliseconds work,
                                            std::chrono::milliseconds longest) {
  const SearchAllowance::Charge charge(allowance(), search.preferredUser,
                                       SearchAllowance::Counted::work);
  if (!openSearch_ || openSearch_->number != search.number) {
    openSearch_.emplace(OpenSearch{
        search.number, SocketHolderSearch(search.inode, search.first, search.preferredUser)});
  }
  if (preferred) {
    openSearch_->search.prefer(*preferred);
  }
  HolderSearchStep step;
  step.result = openSearch_->search.proceed(SearchBudget(work, longest));
  if (step.result == HolderSearchStep::Result::found) {
    step.holder = openSearch_->search.holder();
  }
  if (step.result != HolderSearchStep::Result::unfinished) {
    openSearch_.reset();
  }
  return step;
}

void LocalProcessTable::rememberHolder(pid_t pid) {
  std::erase(recentHolders_, pid);
  recentHolders_.push_front(pid);
  if (recentHolders_.size() > kMaximumRecentHolders) {
    recentHolders_.pop_back();
  }
}

std::optional<bool> LocalProcessTable::hasInherited(pid_t pid, std::uint32_t inode) const {
  const std::string socket = "socket:[" + std::to_string(inode) + "]";
  for (int descriptor = 0; descriptor < kInheritedDescriptors; ++descriptor) {
    if (linkTarget(pathOf(pid, ("fd/" + std::to_string(descriptor)).c_str())) == socket) {
      return true;
    }
  }
  return false;
}

std::string_view serviceGroupOf(std::string_view controlGroup) {
  // From the innermost group outwards; a service may have nested groups.
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
