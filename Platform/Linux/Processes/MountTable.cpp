#include "Platform/Linux/Processes/MountTable.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/sysmacros.h>

#include <fstream>
#include <sstream>

namespace ostravel::linuxplatform {

namespace {

constexpr const char* kPath = "/proc/self/mountinfo";

}  // namespace

MountTable::MountTable() : changes_(::open(kPath, O_RDONLY | O_CLOEXEC)) {}

std::uint64_t MountTable::generation() {
  pollfd change{changes_.get(), POLLPRI, 0};
  // Without the descriptor, changes go unnoticed, so every call is a new generation.
  if (!changes_.isOpen() || ::poll(&change, 1, 0) != 0) {
    ++generation_;
  }
  return generation_;
}

std::optional<dev_t> MountTable::deviceOf(std::uint64_t mount) {
  if (readGeneration_ != generation_) {
    devices_ = read(kPath);
    readGeneration_ = generation_;
  }
  const auto found = devices_.find(mount);
  return found == devices_.end() ? std::nullopt : std::optional(found->second);
}

MountTable::Devices MountTable::read(const std::string& path) {
  Devices devices;
  std::ifstream file(path);
  // A line without an end is incomplete: its numbers may be as well.
  for (std::string line; std::getline(file, line) && !file.eof();) {
    std::istringstream words(line);
    std::uint64_t mount = 0;
    std::uint64_t parent = 0;
    unsigned major = 0;
    char colon = 0;
    unsigned minor = 0;
    if (words >> mount >> parent >> major >> colon >> minor && colon == ':') {
      devices.insert_or_assign(mount, ::makedev(major, minor));
    }
  }
  return devices;
}

}  // namespace ostravel::linuxplatform
