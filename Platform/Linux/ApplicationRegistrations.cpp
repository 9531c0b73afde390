#include "Platform/Linux/ApplicationRegistrations.h"

#include <dirent.h>
#include <fcntl.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "Platform/Linux/FileDescriptor.h"

namespace ostravel::linuxplatform {

namespace {

// Far more than all programs of a machine need.
constexpr off_t kMaximumFileSize = 1024 * 1024;

struct JSONRelease {
  void operator()(json_t* value) const { json_decref(value); }
};

// Why a file or folder is not believed; absent when it is.
std::optional<std::string> distrust(const struct stat& status) {
  if (status.st_uid != 0) {
    return "is ignored: it does not belong to root";
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return "is ignored: others than root may write to it";
  }
  return std::nullopt;
}

std::string systemReason() {
  return std::string("cannot be read: ") + std::strerror(errno);
}

// The bytes of an open file; absent, with errno set, when they cannot be read.
std::optional<std::string> contentOf(const FileDescriptor& file, std::size_t size) {
  std::string text(size, '\0');
  std::size_t filled = 0;
  while (filled < size) {
    const auto count = ::read(file.get(), text.data() + filled, size - filled);
    if (count < 0) {
      return std::nullopt;
    }
    if (count == 0) {
      break;
    }
    filled += static_cast<std::size_t>(count);
  }
  text.resize(filled);
  return text;
}

// The names of the registration files, in order.
std::vector<std::string> registrationFiles(DIR* folder) {
  constexpr std::string_view kSuffix = ".json";
  std::vector<std::string> names;
  while (const dirent* const entry = ::readdir(folder)) {
    const std::string_view name = entry->d_name;
    // Hidden ones are what editors leave behind.
    if (name.ends_with(kSuffix) && !name.starts_with('.')) {
      names.emplace_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

ApplicationRegistrations::ApplicationRegistrations(std::string folder,
                                                   std::function<void(const std::string&)> warn)
    : folder_(std::move(folder)), warn_(std::move(warn)) {
  readFolder();
}

std::optional<std::string> ApplicationRegistrations::identifierOf(
    std::string_view executable) const {
  const auto found = identifiers_.find(std::string(executable));
  if (found == identifiers_.end()) {
    return std::nullopt;
  }
  return found->second;
}

void ApplicationRegistrations::readFolder() {
  struct Close {
    void operator()(DIR* folder) const { ::closedir(folder); }
  };
  const std::unique_ptr<DIR, Close> folder(::opendir(folder_.c_str()));
  struct stat status {};
  if (!folder || ::fstat(::dirfd(folder.get()), &status) != 0) {
    if (errno != ENOENT) {
      ignore(folder_ + ": " + systemReason());
    }
    return;
  }
  if (const auto reason = distrust(status)) {
    ignore(folder_ + ": " + *reason);
    return;
  }
  for (const std::string& name : registrationFiles(folder.get())) {
    readFile(folder_ + "/" + name);
  }
}

void ApplicationRegistrations::readFile(const std::string& path) {
  // Opening something else than a file must not wait.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.get(), &status) != 0) {
    ignore(path + ": " + systemReason());
    return;
  }
  if (const auto reason = distrust(status)) {
    ignore(path + ": " + *reason);
    return;
  }
  if (!S_ISREG(status.st_mode) || status.st_size > kMaximumFileSize) {
    ignore(path + ": is ignored: it is not a regular file of at most 1 MiB");
    return;
  }
  const auto text = contentOf(file, static_cast<std::size_t>(status.st_size));
  if (!text) {
    ignore(path + ": " + systemReason());
    return;
  }
  if (auto identifiers = parse(path, *text)) {
    for (auto& [executable, identifier] : *identifiers) {
      identifiers_.insert_or_assign(executable, std::move(identifier));
    }
  }
}

std::optional<ApplicationRegistrations::Identifiers> ApplicationRegistrations::parse(
    const std::string& path, std::string_view text) {
  json_error_t failure{};
  const std::unique_ptr<json_t, JSONRelease> document(
      json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES | JSON_DECODE_ANY, &failure));
  if (!document) {
    ignore(path + ":" + std::to_string(failure.line) + ":" + std::to_string(failure.column) + ": " +
           failure.text);
    return std::nullopt;
  }
  if (!json_is_object(document.get())) {
    ignore(path + ":1:1: registrations must be a JSON object");
    return std::nullopt;
  }
  Identifiers identifiers;
  const char* executable = nullptr;
  json_t* value = nullptr;
  json_object_foreach(document.get(), executable, value) {
    if (executable[0] != '/') {
      ignore(path + ": \"" + executable + "\" is not the absolute path of an executable");
      return std::nullopt;
    }
    if (json_string_length(value) == 0) {
      ignore(path + ": the identifier of \"" + executable + "\" must be a text that is not empty");
      return std::nullopt;
    }
    identifiers.emplace(executable,
                        std::string(json_string_value(value), json_string_length(value)));
  }
  return identifiers;
}

void ApplicationRegistrations::ignore(const std::string& warning) {
  isComplete_ = false;
  warn_(warning);
}

}  // namespace ostravel::linuxplatform
