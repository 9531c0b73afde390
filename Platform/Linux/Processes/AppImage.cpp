#include "Platform/Linux/Processes/AppImage.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <sstream>
#include <string_view>

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform {

namespace {

// A few thousand mounts, read in less than a millisecond.
constexpr std::size_t kMaximumSize = 256 * 1024;
constexpr std::size_t kMaximumNameSize = 255;
constexpr std::string_view kSuffix = ".appimage";

// Complete lines: part of one could show another user.
std::string beginningOf(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string content;
  std::array<char, 4096> block;
  while (file.isOpen() && content.size() < kMaximumSize) {
    const auto length = ::read(file.get(), block.data(), block.size());
    if (length <= 0) {
      break;
    }
    content.append(block.data(), static_cast<std::size_t>(length));
  }
  content.resize(content.rfind('\n') + 1);
  return content;
}

// Plain names only, so that the kernel's escapes of other characters need not be undone.
bool isAppImageName(std::string_view name) {
  const auto isPermitted = [](unsigned char character) {
    return std::isalnum(character) != 0 ||
           std::string_view("._-+").find(static_cast<char>(character)) != std::string_view::npos;
  };
  const auto isEqual = [](unsigned char one, char other) { return std::tolower(one) == other; };
  return name.size() > kSuffix.size() && name.size() <= kMaximumNameSize &&
         std::ranges::all_of(name, isPermitted) &&
         std::ranges::equal(name.substr(name.size() - kSuffix.size()), kSuffix, isEqual);
}

bool hasOption(std::string_view options, std::string_view wanted) {
  while (!options.empty()) {
    const auto end = options.find(',');
    if (options.substr(0, end) == wanted) {
      return true;
    }
    options.remove_prefix(end == std::string_view::npos ? options.size() : end + 1);
  }
  return false;
}

}  // namespace

std::optional<std::string> appImageOf(const Process& process) {
  if (!mayBeAppImage(process)) {
    return std::nullopt;
  }
  return appImageIn("/proc/" + std::to_string(process.pid) + "/mountinfo",
                    process.executableFile->device, process.stamp.realUser);
}

bool mayBeAppImage(const Process& process) {
  // The runtime of an AppImage mounts it in such a folder.
  return process.executableFile && process.executable.find("/.mount_") != std::string::npos;
}

std::optional<std::string> appImageIn(const std::string& mountsFile, dev_t device, uid_t user) {
  std::istringstream lines(beginningOf(mountsFile));
  const std::string number = std::to_string(major(device)) + ":" + std::to_string(minor(device));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string mount;
    std::string parent;
    std::string deviceNumber;
    words >> mount >> parent >> deviceNumber;
    const auto separator = line.find(" - ");
    if (deviceNumber != number || separator == std::string::npos) {
      continue;
    }
    std::istringstream rest(line.substr(separator + 3));
    std::string type;
    std::string source;
    std::string options;
    rest >> type >> source >> options;
    const std::string name = source.substr(source.rfind('/') + 1);
    if (type.starts_with("fuse") && isAppImageName(name) &&
        hasOption(options, "user_id=" + std::to_string(user))) {
      return name;
    }
  }
  return std::nullopt;
}

}  // namespace ostravel::linuxplatform
