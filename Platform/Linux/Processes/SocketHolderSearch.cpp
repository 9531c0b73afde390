#include "Platform/Linux/Processes/SocketHolderSearch.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "Base/ParseNumber.h"

namespace ostravel::linuxplatform {

namespace {

std::string processFolder(pid_t process) {
  return "/proc/" + std::to_string(process);
}

bool isOfUser(pid_t process, uid_t user) {
  struct stat status {};
  return ::stat(processFolder(process).c_str(), &status) == 0 && status.st_uid == user;
}

}  // namespace

SocketHolderSearch::SocketHolderSearch(std::uint32_t inode, std::vector<pid_t> first,
                                       std::optional<uid_t> preferredUser)
    : inode_(inode), preferredUser_(preferredUser), processes_(std::move(first)) {}

void SocketHolderSearch::prefer(pid_t process) {
  const auto next = processes_.begin() + static_cast<std::ptrdiff_t>(next_);
  const auto seenEnd = next == processes_.end() ? next : next + 1;
  if (std::find(processes_.begin(), seenEnd, process) != seenEnd) {
    return;
  }
  if (!descriptors_) {
    processes_.insert(next, process);
  } else if (interruptedDescriptors_) {
    // One interruption at a time, so that only two folders are open.
    processes_.insert(next + 1, process);
  } else {
    interrupted_ = *next;
    interruptedDescriptors_ = std::move(descriptors_);
    processes_.insert(next, process);
  }
}

void SocketHolderSearch::openDescriptors() {
  if (interruptedDescriptors_ && processes_[next_] == interrupted_) {
    descriptors_ = std::move(interruptedDescriptors_);
  } else {
    descriptors_.reset(::opendir((processFolder(processes_[next_]) + "/fd").c_str()));
  }
}

SocketHolderSearch::Result SocketHolderSearch::proceed(const SearchBudget& budget) {
  while (true) {
    if (next_ == processes_.size()) {
      if (hasListedProcesses_) {
        return Result::absent;
      }
      listProcesses();
      continue;
    }
    if (!descriptors_) {
      openDescriptors();
    }
    const dirent* const entry = descriptors_ ? ::readdir(descriptors_.get()) : nullptr;
    if (entry != nullptr && isHeldThroughCurrentDescriptor(*entry)) {
      return Result::found;
    }
    if (entry == nullptr) {
      descriptors_.reset();
      ++next_;
    }
    if (budget.isUsedUp()) {
      return Result::unfinished;
    }
  }
}

bool SocketHolderSearch::isHeldThroughCurrentDescriptor(const dirent& entry) const {
  std::array<char, 64> target{};
  const auto length =
      ::readlinkat(::dirfd(descriptors_.get()), entry.d_name, target.data(), target.size());
  return length > 0 && std::string_view(target.data(), static_cast<std::size_t>(length)) ==
                           "socket:[" + std::to_string(inode_) + "]";
}

void SocketHolderSearch::listProcesses() {
  hasListedProcesses_ = true;
  const std::unique_ptr<DIR, DirectoryRelease> directory(::opendir("/proc"));
  if (!directory) {
    return;
  }
  std::vector<pid_t> listed;
  while (const dirent* const entry = ::readdir(directory.get())) {
    if (const auto process = parseNumber<pid_t>(entry->d_name)) {
      listed.push_back(*process);
    }
  }
  std::sort(listed.begin(), listed.end(), std::greater<>());
  if (preferredUser_) {
    std::stable_partition(listed.begin(), listed.end(),
                          [this](pid_t process) { return isOfUser(process, *preferredUser_); });
  }
  processes_.insert(processes_.end(), listed.begin(), listed.end());
}

}  // namespace ostravel::linuxplatform
