#include "Platform/Linux/Liveness/StarvationDetector.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstddef>
#include <memory>
#include <optional>
#include <utility>

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform {

namespace {

struct DirectoryRelease {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

// The beginning of a small file; empty if it cannot be read.
std::string contentOf(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, 512> text;
  const auto length = file.isOpen() ? ::read(file.get(), text.data(), text.size()) : -1;
  return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : std::string();
}

bool isReady(const std::string& thread) {
  const std::string text = contentOf(thread + "/stat");
  // The name in parentheses may contain anything; the state follows it.
  constexpr std::size_t kToState = 2;
  const auto nameEnd = text.rfind(')');
  return nameEnd != std::string::npos && nameEnd + kToState < text.size() &&
         text[nameEnd + kToState] == 'R';
}

// The first number of schedstat, in nanoseconds.
std::optional<std::uint64_t> runningTime(const std::string& thread) {
  const std::string text = contentOf(thread + "/schedstat");
  std::uint64_t time = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), time);
  // Without its separator a number may not be complete.
  const bool isWhole = parsed.ec == std::errc() && parsed.ptr != text.data() + text.size();
  return isWhole ? std::optional(time) : std::nullopt;
}

}  // namespace

bool StarvationDetector::observe() {
  std::map<std::string, std::uint64_t> ready;
  bool isStarved = false;
  const std::unique_ptr<DIR, DirectoryRelease> directory(::opendir(tasks_.c_str()));
  while (const dirent* const entry = directory ? ::readdir(directory.get()) : nullptr) {
    const std::string name = entry->d_name;
    const std::string thread = tasks_ + "/" + name;
    const auto time = isReady(thread) ? runningTime(thread) : std::nullopt;
    if (!time) {
      continue;
    }
    const auto before = ready_.find(name);
    isStarved = isStarved || (before != ready_.end() && before->second == *time);
    ready.emplace(name, *time);
  }
  ready_ = std::move(ready);
  return isStarved;
}

}  // namespace ostravel::linuxplatform
