// What becomes of every description of a process when files of /proc are missing, unreadable,
// truncated, altered, foreign, or change between two reads: it ends, reports nothing that is not
// true, and is complete again afterwards.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <optional>
#include <ostream>
#include <set>
#include <string>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Platform/Linux/Processes/MountTable.h"
#include "Platform/Linux/Processes/ProcessLife.h"
#include "Tests/Platform/Linux/Support/AlteredFiles.h"

namespace ostravel::linuxplatform {
namespace {

using testing::AlteredFiles;
using testing::FileAnswer;

// What is reported, fact by fact; empty if nothing is.
using Facts = std::set<std::string>;

// The content of a file, which AlteredFiles does not alter; empty if there is none.
std::string contentOf(const std::string& path) {
  const FileDescriptor file(::openat(AT_FDCWD, path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string content;
  std::array<char, 4096> part;
  ssize_t size = 0;
  while ((size = ::read(file.get(), part.data(), part.size())) > 0) {
    content.append(part.data(), static_cast<std::size_t>(size));
  }
  return content;
}

std::string textOf(const ProcessStamp& stamp) {
  return std::to_string(stamp.startTime) + " " + std::to_string(stamp.stackStart) + " " +
         std::to_string(stamp.realUser) + " " + std::to_string(stamp.uid);
}

Facts stampFacts() {
  const auto stamp = LocalProcessTable().stampOf(::getpid());
  return stamp ? Facts{textOf(*stamp)} : Facts();
}

// The file system may answer late.
std::optional<Process> findSettled(const LocalProcessTable& processes) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  auto process = processes.find(::getpid(), std::nullopt);
  while (process && !process->isExecutableSettled && std::chrono::steady_clock::now() < deadline) {
    process = processes.find(::getpid(), std::nullopt);
  }
  return process;
}

Facts processFacts() {
  const LocalProcessTable processes;
  const auto process = findSettled(processes);
  if (!process) {
    return {};
  }
  Facts facts{textOf(process->stamp), "runs " + process->executable};
  if (!process->controlGroup.empty()) {
    facts.insert("group " + process->controlGroup);
  }
  if (process->executableFile) {
    facts.insert("file " + std::to_string(process->executableFile->device) + " " +
                 std::to_string(process->executableFile->inode));
  }
  if (process->isExecutableGenuine) {
    facts.insert("genuine");
  }
  return facts;
}

Facts lifeFacts() {
  static const std::uint64_t kStart = LocalProcessTable().stampOf(::getpid())->startTime;
  return ProcessLife(::getpid(), kStart).hasEnded() ? Facts() : Facts{"alive"};
}

Facts mountFacts() {
  struct statx proc {};
  EXPECT_EQ(::statx(AT_FDCWD, "/proc", 0, STATX_MNT_ID, &proc), 0);
  MountTable mounts;
  mounts.generation();
  const auto device = mounts.deviceOf(proc.stx_mnt_id);
  return device ? Facts{std::to_string(*device)} : Facts();
}

// A description of a process, and a file that it is read from.
struct Reader {
  const char* name;
  Facts (*read)();
  const char* file;
};

void PrintTo(const Reader& reader, std::ostream* stream) {
  *stream << reader.file;
}

class WrongFilesTest : public ::testing::TestWithParam<Reader> {
 protected:
  // What is reported if alter makes this of the content of each file of that name.
  template <typename Alter>
  Facts readWith(const Alter& alter) const {
    const AlteredFiles files([&alter](const std::string& path) {
      const bool isAltered =
          path.starts_with("/proc/") && path.find(GetParam().file) != std::string::npos;
      return isAltered ? std::optional<FileAnswer>(alter(contentOf(path))) : std::nullopt;
    });
    return GetParam().read();
  }

  template <typename Alter>
  void expectNothingUntrue(const std::string& alteration, const Alter& alter) const {
    const Facts facts = readWith(alter);
    ASSERT_TRUE(std::includes(truth_.begin(), truth_.end(), facts.begin(), facts.end()))
        << alteration << ": " << ::testing::PrintToString(facts);
  }

  void TearDown() override { EXPECT_EQ(GetParam().read(), truth_); }

  const Facts truth_ = GetParam().read();
};

TEST_P(WrongFilesTest, IsReadInTheFirstPlace) {
  EXPECT_FALSE(truth_.empty());
  std::atomic<bool> isRead = false;
  readWith([&isRead](std::string content) {
    isRead = true;
    return FileAnswer{std::move(content)};
  });
  EXPECT_TRUE(isRead);
}

TEST_P(WrongFilesTest, AMissingFileIsNoFact) {
  for (const int error : {ENOENT, ESRCH, EACCES, EMFILE, ENOMEM}) {
    expectNothingUntrue("error " + std::to_string(error), [error](const std::string& /*content*/) {
      return FileAnswer{.openError = error};
    });
  }
}

TEST_P(WrongFilesTest, AnUnreadableFileIsNoFact) {
  expectNothingUntrue(
      "EIO", [](const std::string& /*content*/) { return FileAnswer{.isUnreadable = true}; });
}

TEST_P(WrongFilesTest, ATruncatedFileIsNotBelieved) {
  constexpr std::size_t kStride = 7;
  constexpr std::size_t kMost = 1200;
  for (std::size_t size = 0; size < kMost; size += kStride) {
    expectNothingUntrue(std::to_string(size) + " bytes", [size](const std::string& content) {
      return FileAnswer{content.substr(0, size)};
    });
  }
}

// What an altered byte says cannot be judged, except that nothing worse may follow from it.
TEST_P(WrongFilesTest, AlteredBytesHaveNoLastingEffect) {
  constexpr std::size_t kStride = 7;
  constexpr std::size_t kMost = 600;
  for (std::size_t at = 0; at < kMost; at += kStride) {
    for (const char value : {'\0', '\n', ' ', '9', ')', '\xFF'}) {
      readWith([at, value](std::string content) {
        if (at < content.size()) {
          content[at] = value;
        }
        return FileAnswer{std::move(content)};
      });
    }
  }
}

TEST_P(WrongFilesTest, GarbageIsNotBelieved) {
  std::string bytes;
  for (int value = 0; value < 256; ++value) {
    bytes += static_cast<char>(value);
  }
  for (const std::string& garbage :
       {std::string(1U << 20U, 'x'), std::string(1U << 20U, '\0'), std::string(1U << 20U, '\n'),
        std::string(1U << 20U, '9'), std::string(1U << 20U, ')'), bytes, std::string("0\n"),
        std::string("99999999999999999999999 ) 9 (\n"), std::string("Uid:\t\nUid:\n0::\n")}) {
    expectNothingUntrue(garbage.substr(0, 30),
                        [&garbage](const std::string& /*content*/) { return FileAnswer{garbage}; });
  }
}

TEST_P(WrongFilesTest, AFileWithoutAnEndIsRead) {
  expectNothingUntrue("a megabyte after it", [](const std::string& content) {
    return FileAnswer{content + std::string(1U << 20U, 'x')};
  });
  expectNothingUntrue("a thousand times", [](const std::string& content) {
    std::string all;
    for (int count = 0; count < 1000; ++count) {
      all += content;
    }
    return FileAnswer{std::move(all)};
  });
}

// A process may end between two reads, and another one may get its number.
TEST_P(WrongFilesTest, AFileThatChangesIsNotBelieved) {
  for (const unsigned first : {0U, 1U}) {
    std::atomic<unsigned> reads = first;
    expectNothingUntrue("every second read", [&reads](std::string content) {
      return ++reads % 2 == 0 ? FileAnswer{} : FileAnswer{std::move(content)};
    });
  }
}

INSTANTIATE_TEST_SUITE_P(Files, WrongFilesTest,
                         ::testing::Values(Reader{"StampFromStat", &stampFacts, "/stat"},
                                           Reader{"StampFromStatus", &stampFacts, "/status"},
                                           Reader{"ProcessFromStat", &processFacts, "/stat"},
                                           Reader{"ProcessFromStatus", &processFacts, "/status"},
                                           Reader{"ProcessFromCgroup", &processFacts, "/cgroup"},
                                           Reader{"ProcessFromDescriptor", &processFacts,
                                                  "/fdinfo/"},
                                           Reader{"ProcessFromMounts", &processFacts, "/mountinfo"},
                                           Reader{"LifeFromStat", &lifeFacts, "/stat"},
                                           Reader{"Mounts", &mountFacts, "/mountinfo"}),
                         [](const auto& instance) { return std::string(instance.param.name); });

}  // namespace
}  // namespace ostravel::linuxplatform
