#include "Platform/Linux/Identity/ScriptNames.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <string_view>
#include <utility>

namespace ostravel::linuxplatform {

namespace {

// Folders in which every user may create files, or in which a path differs between processes.
constexpr std::array<std::string_view, 5> kSharedFolders{"/tmp/", "/var/tmp/", "/run/", "/dev/",
                                                         "/proc/"};

constexpr std::array<std::string_view, 3> kSystemFolders{"/usr/bin/", "/bin/", "/usr/local/bin/"};

// Without version numbers.
constexpr std::array<std::string_view, 16> kInterpreters{
    "bash", "bun",  "dash",   "deno", "fish", "guile", "ksh",   "lua",
    "node", "perl", "python", "php",  "ruby", "sh",    "tclsh", "zsh"};

bool startsWithAny(std::string_view path, const auto& folders) {
  return std::ranges::any_of(folders,
                             [path](std::string_view folder) { return path.starts_with(folder); });
}

bool isUsualInterpreter(std::string_view path) {
  std::string_view name = path.substr(path.rfind('/') + 1);
  const auto isOfVersion = [](unsigned char character) {
    return std::isdigit(character) != 0 || character == '.';
  };
  while (!name.empty() && isOfVersion(static_cast<unsigned char>(name.back()))) {
    name.remove_suffix(1);
  }
  return startsWithAny(path, kSystemFolders) &&
         std::ranges::find(kInterpreters, name) != kInterpreters.end();
}

bool isPlainPath(const std::string& path) {
  // Compared as text, because std::filesystem::path treats doubled slashes as single ones.
  return path.starts_with('/') && !path.ends_with('/') && path.find("//") == std::string::npos &&
         path == std::filesystem::path(path).lexically_normal().native();
}

}  // namespace

ScriptNames::ScriptNames(std::unique_ptr<ScriptTracer> tracer) : tracer_(std::move(tracer)) {}

std::optional<std::string> ScriptNames::nameOf(const Process& process,
                                               const ProcessTable& processes) const {
  const auto record = tracer_ ? tracer_->recordOf(process.pid) : std::nullopt;
  if (!record || !process.isExecutableGenuine || record->startTime != process.stamp.startTime ||
      record->stackStart != process.stamp.stackStart ||
      (record->isByEnv && !isUsualInterpreter(process.executable)) ||
      !isSeenByEverybody(*record, processes)) {
    return std::nullopt;
  }
  std::string path = pathOf(*record, process, processes);
  if (!isPlainPath(path) || startsWithAny(path, kSharedFolders)) {
    return std::nullopt;
  }
  return path;
}

bool ScriptNames::isSeenByEverybody(const ScriptRecord& record, const ProcessTable& processes) {
  const auto view = processes.commonView();
  return view && record.root == view->root && record.mountNamespace == view->mountNamespace;
}

std::string ScriptNames::pathOf(const ScriptRecord& record, const Process& process,
                                const ProcessTable& processes) {
  constexpr std::string_view kHere = "./";
  if (record.path.empty() || record.path.front() == '/') {
    return record.path;
  }
  auto folder = processes.workingFolderOf(process, record.folder);
  if (!folder) {
    return {};
  }
  if (!folder->ends_with('/')) {
    *folder += '/';
  }
  return *folder + record.path.substr(record.path.starts_with(kHere) ? kHere.size() : 0);
}

}  // namespace ostravel::linuxplatform
