// A file of /proc with any content: it is read to its end, and one that is truncated says the same
// as the whole file, or nothing.
//
// The first byte of an input selects the file, the others are its content.

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "Platform/Linux/Kernel/CgroupRoot.h"
#include "Platform/Linux/Kernel/ConntrackRoom.h"
#include "Platform/Linux/Kernel/QueueCounters.h"
#include "Platform/Linux/Liveness/StarvationDetector.h"
#include "Platform/Linux/Processes/AppImage.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Platform/Linux/Processes/MountTable.h"
#include "Platform/Linux/Processes/ProcessLife.h"
#include "Tests/Fuzz/FuzzInput.h"
#include "Tests/Platform/Linux/Support/AlteredFiles.h"
#include "Tests/Support/TemporaryFolder.h"

namespace {

using namespace ostravel::linuxplatform;
using ostravel::fuzz::require;
using ostravel::testing::AlteredFiles;
using ostravel::testing::FileAnswer;

// What a file says; empty if nothing.
using Reading = std::optional<std::string>;

constexpr pid_t kProcess = 4711;
constexpr const char* kStatus =
    "Name:\tcurl\nUmask:\t0022\nState:\tS (sleeping)\nUid:\t1000\t1001\t1000\t1000\n";
constexpr const char* kState =
    "4711 (curl) S 1 1 1 0 -1 4194304 1 0 0 0 0 0 0 0 20 0 1 0 815 1 1 1 1 1 90210 0\n";
constexpr std::uint64_t kStartTime = 815;

LocalProcessTable& processes() {
  static LocalProcessTable table;
  return table;
}

// The file of the process has this content, and its other files are as usual.
AlteredFiles withFile(const std::string& name, const std::string& content) {
  const std::string folder = "/proc/" + std::to_string(kProcess) + "/";
  return AlteredFiles([folder, name, content](const std::string& path) {
    if (path == folder + name) {
      return std::optional(FileAnswer{content});
    }
    if (path == folder + "stat") {
      return std::optional(FileAnswer{kState});
    }
    return path == folder + "status" ? std::optional(FileAnswer{kStatus}) : std::nullopt;
  });
}

constexpr const char* kMounts = "/mountinfo";

AlteredFiles withMounts(const std::string& content) {
  return AlteredFiles([content](const std::string& path) {
    return path == kMounts ? std::optional(FileAnswer{content}) : std::nullopt;
  });
}

Reading readStamp(const std::string& content, const char* name) {
  const AlteredFiles files = withFile(name, content);
  const auto stamp = processes().stampOf(kProcess);
  return stamp
             ? Reading(std::to_string(stamp->startTime) + " " + std::to_string(stamp->stackStart) +
                       " " + std::to_string(stamp->realUser) + " " + std::to_string(stamp->uid))
             : std::nullopt;
}

Reading readState(const std::string& content) {
  return readStamp(content, "stat");
}

Reading readUsers(const std::string& content) {
  return readStamp(content, "status");
}

Reading readControlGroup(const std::string& content) {
  const AlteredFiles files = withFile("cgroup", content);
  Process process;
  process.pid = kProcess;
  process.stamp.startTime = kStartTime;
  if (!processes().refreshControlGroup(process)) {
    return std::nullopt;
  }
  require(process.controlGroup.starts_with(process.serviceGroup), "a service has its own groups");
  return process.controlGroup;
}

Reading readLife(const std::string& content) {
  const AlteredFiles files = withFile("stat", content);
  return ProcessLife(kProcess, kStartTime).hasEnded() ? std::nullopt : Reading("alive");
}

Reading readMounts(const std::string& content) {
  // Only the first line: a mount that is listed twice would have the device of its last one.
  const std::string line = content.substr(0, content.find('\n') + 1);
  std::size_t count = 0;
  {
    const AlteredFiles files = withMounts(content);
    count = MountTable::read(kMounts).size();
  }
  const AlteredFiles files = withMounts(line);
  const auto first = MountTable::read(kMounts);
  require(first.size() <= count, "every line is read");
  return first.empty() ? std::nullopt
                       : Reading(std::to_string(first.begin()->first) + " " +
                                 std::to_string(first.begin()->second));
}

Reading readAppImage(const std::string& content) {
  constexpr dev_t kDevice = 57;
  constexpr uid_t kUser = 1000;
  const AlteredFiles files = withMounts(content);
  return appImageIn(kMounts, kDevice, kUser);
}

Reading readCgroupRoot(const std::string& content) {
  // The C library reads it, and a line without an end like any other.
  const std::string lines = content.substr(0, content.rfind('\n') + 1);
  static const int file = ::memfd_create("mounts", MFD_CLOEXEC);
  require(::ftruncate(file, 0) == 0 &&
              ::pwrite(file, lines.data(), lines.size(), 0) == static_cast<ssize_t>(lines.size()),
          "the file can be written");
  return findCgroupRoot("/proc/self/fd/" + std::to_string(file));
}

Reading readQueue(const std::string& content) {
  constexpr std::uint16_t kQueue = 43100;
  const auto counters = QueueCounters::parse(content, kQueue);
  return counters
             ? Reading(std::to_string(counters->waiting) + " " + std::to_string(counters->dropped) +
                       " " + std::to_string(counters->userDropped))
             : std::nullopt;
}

// Both files of a thread, one after the other: it is starved if it is ready and has not run. Only
// their beginnings are read.
Reading readThread(const std::string& content) {
  static const ostravel::testing::TemporaryFolder folder;
  static const std::string thread = folder.write("1", "");
  const auto end = content.find('\n');
  const std::string times = end == std::string::npos ? "" : content.substr(end + 1);
  const AlteredFiles files([&content, &times, end](const std::string& path) {
    return path == thread + "/stat"        ? std::optional(FileAnswer{content.substr(0, end)})
           : path == thread + "/schedstat" ? std::optional(FileAnswer{times})
                                           : std::nullopt;
  });
  StarvationDetector detector(folder.path());
  require(!detector.observe(), "one observation is not enough");
  require(!detector.observe() || content.find('R') < end, "only a ready thread can be starved");
  return std::nullopt;
}

Reading readRoom(const std::string& content) {
  const AlteredFiles files([&content](const std::string& path) {
    return std::optional(FileAnswer{path.ends_with("_max") ? content : "0\n"});
  });
  require(ConntrackRoom()(), "an empty table has room");
  return std::nullopt;
}

constexpr std::array kFiles = {&readState,  &readUsers,    &readControlGroup, &readLife,
                               &readMounts, &readAppImage, &readCgroupRoot,   &readQueue,
                               &readThread, &readRoom};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const auto file = kFiles[data[0] % kFiles.size()];
  const std::string content(reinterpret_cast<const char*>(data) + 1, size - 1);
  const Reading reading = file(content);
  // At a different place for each input.
  const Reading shorter = file(content.substr(0, size * 2654435761U % size));
  require(!shorter || shorter == reading, "a truncated file says the same or nothing");
  return 0;
}
