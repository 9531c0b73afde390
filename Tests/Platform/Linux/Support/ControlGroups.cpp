#include "Tests/Platform/Linux/Support/ControlGroups.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "Platform/Linux/Kernel/CgroupRoot.h"

namespace ostravel::testing {

namespace {

bool enter(const std::filesystem::path& group, pid_t process) {
  std::ofstream members(group / "cgroup.procs");
  members << process << std::flush;
  return members.good();
}

// Of this process, without its leading "/".
std::string currentGroup() {
  std::ifstream groups("/proc/self/cgroup");
  for (std::string line; std::getline(groups, line);) {
    if (line.starts_with("0::/")) {
      return line.substr(4);
    }
  }
  return {};
}

}  // namespace

ControlGroups::ControlGroups() {
  const auto mount = linuxplatform::findCgroupRoot("/proc/self/mounts");
  if (!mount) {
    ADD_FAILURE() << "control groups of version 2 are not mounted";
    return;
  }
  outside_ = std::filesystem::path(*mount) / currentGroup();
  root_ = outside_ / ("ostravel-test-" + std::to_string(::getpid()));
  std::filesystem::create_directory(root_);
  EXPECT_TRUE(enter(root_, ::getpid()) && ::unshare(CLONE_NEWCGROUP) == 0) << "run as root";
}

ControlGroups::~ControlGroups() {
  if (root_.empty()) {
    return;
  }
  EXPECT_TRUE(enter(outside_, ::getpid()));
  // The files in the folders cannot be removed and need not be.
  std::vector<std::filesystem::path> groups{root_};
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
    if (entry.is_directory()) {
      groups.push_back(entry.path());
    }
  }
  std::ranges::sort(groups, std::greater());
  for (const auto& group : groups) {
    EXPECT_EQ(::rmdir(group.c_str()), 0) << group;
  }
}

void ControlGroups::move(pid_t process, std::string_view group) const {
  const std::filesystem::path path = root_ / group.substr(1);
  std::filesystem::create_directories(path);
  EXPECT_TRUE(enter(path, process)) << path;
}

}  // namespace ostravel::testing
