#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/Processes/FileIdentity.h"
#include "Platform/Linux/Processes/ProcessTable.h"

namespace ostravel::linuxplatform {

// One question of a ProcessTable, with the members that its kind needs.
struct InspectionQuestion {
  enum class Kind : std::uint8_t {
    stamp = 1,
    find,
    refreshExecutable,
    refreshControlGroup,
    workingFolder,
    appImage,
    life,
    holder,
    search,
    inheritance,
    commonView,
    registeredPath,
  };

  Kind kind = Kind::stamp;
  // The answer repeats it.
  std::uint64_t number = 0;
  Process process = {};
  // The recorded executable, or the expected folder.
  std::optional<FileIdentity> file = std::nullopt;
  HolderSearch search = {};
  // A process to scan first.
  std::optional<pid_t> candidate = std::nullopt;
  std::chrono::nanoseconds work{};
  std::chrono::nanoseconds longest{};
  std::string path = {};
};

// With the members that the question's kind needs. The answer to Kind::life carries a descriptor
// besides (unix(7), SCM_RIGHTS): the process's /proc/PID/stat.
struct InspectionAnswer {
  std::uint64_t number = 0;
  // False if there is nothing of the kind, or nothing has changed.
  bool isPositive = false;
  // The running time that the answer took.
  std::chrono::nanoseconds work{};
  Process process = {};
  HolderSearchStep step = {};
  CommonView view = {};
  std::string text = {};
};

// Both are one message on a local socket (SOCK_SEQPACKET), in this machine's byte order:
//
//   uint16 kInspectionVersion │ members in their order
//
//   number: as many bytes as it has    text: uint16 length, bytes    bool: 0 or 1
//   optional: bool, value if true      list: uint16 length, values
constexpr std::uint16_t kInspectionVersion = 1;
// Five texts of the longest path, and the rest.
constexpr std::size_t kMaximumInspectionMessage = 32768;

std::string encode(const InspectionQuestion& question);
std::string encode(const InspectionAnswer& answer);
// Empty unless it is exactly one message of this version.
std::optional<InspectionQuestion> decodeInspectionQuestion(std::string_view message);
std::optional<InspectionAnswer> decodeInspectionAnswer(std::string_view message);

}  // namespace ostravel::linuxplatform
