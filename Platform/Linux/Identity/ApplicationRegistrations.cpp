#include "Platform/Linux/Identity/ApplicationRegistrations.h"

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

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform {

namespace {

// Far more than the programs of any machine need.
constexpr off_t kMaximumFileSize = 1024 * 1024;

struct JSONRelease {
  void operator()(json_t* value) const { json_decref(value); }
};

// Why a file or folder is not trusted; empty if it is.
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

// The content of an open file; empty, with errno set, if it cannot be read.
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
    // Editors leave hidden files behind.
    if (name.ends_with(kSuffix) && !name.starts_with('.')) {
      names.emplace_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

ApplicationRegistrations::ApplicationRegistrations(std::string folder,
                                                   std::function<void(const std::string&)> warn,
                                                   SystemUsers systemUsers)
    : folder_(std::move(folder)), warn_(std::move(warn)), systemUsers_(systemUsers) {
  readFolder();
}

std::optional<std::string> ApplicationRegistrations::identifierOf(
    std::string_view executable, std::initializer_list<uid_t> users) const {
  const auto found = registrations_.find(std::string(executable));
  if (found == registrations_.end()) {
    return std::nullopt;
  }
  const Registration& registration = found->second;
  const bool isForAll = std::all_of(users.begin(), users.end(), [&](uid_t user) {
    return systemUsers_.includes(user) ||
           std::find(registration.users.begin(), registration.users.end(), user) !=
               registration.users.end();
  });
  return isForAll ? std::optional(registration.identifier) : std::nullopt;
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
  // Must not block on something that is not a regular file.
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
  if (auto registrations = parse(path, *text)) {
    for (auto& [executable, registration] : *registrations) {
      registrations_.insert_or_assign(executable, std::move(registration));
    }
  }
}

std::optional<ApplicationRegistrations::Registrations> ApplicationRegistrations::parse(
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
  Registrations registrations;
  const char* executable = nullptr;
  json_t* value = nullptr;
  json_object_foreach(document.get(), executable, value) {
    if (executable[0] != '/') {
      ignore(path + ": \"" + executable + "\" is not the absolute path of an executable");
      return std::nullopt;
    }
    auto registration = parseRegistration(path, executable, value);
    if (!registration) {
      return std::nullopt;
    }
    registrations.emplace(executable, std::move(*registration));
  }
  return registrations;
}

std::optional<ApplicationRegistrations::Registration> ApplicationRegistrations::parseRegistration(
    const std::string& path, const char* executable, json_t* value) {
  Registration registration;
  const json_t* identifier = value;
  if (json_is_object(value)) {
    identifier = json_object_get(value, "identifier");
    const char* name = nullptr;
    json_t* member = nullptr;
    json_object_foreach(value, name, member) {
      if (std::strcmp(name, "users") == 0) {
        auto users = parseUsers(path, executable, member);
        if (!users) {
          return std::nullopt;
        }
        registration.users = std::move(*users);
      } else if (std::strcmp(name, "identifier") != 0) {
        ignore(path + ": the registration of \"" + executable + "\" has \"" + name +
               "\", which is neither \"identifier\" nor \"users\"");
        return std::nullopt;
      }
    }
  }
  if (json_string_length(identifier) == 0) {
    ignore(path + ": the identifier of \"" + executable + "\" must be a text that is not empty");
    return std::nullopt;
  }
  registration.identifier.assign(json_string_value(identifier), json_string_length(identifier));
  return registration;
}

std::optional<std::vector<uid_t>> ApplicationRegistrations::parseUsers(const std::string& path,
                                                                       const char* executable,
                                                                       json_t* value) {
  if (!json_is_array(value)) {
    ignore(path + ": the users of \"" + executable + "\" must be a list of names");
    return std::nullopt;
  }
  std::vector<uid_t> users;
  std::size_t index = 0;
  json_t* entry = nullptr;
  json_array_foreach(value, index, entry) {
    if (!json_is_string(entry)) {
      ignore(path + ": the users of \"" + executable + "\" must be a list of names");
      return std::nullopt;
    }
    const auto user = SystemUsers::numberOf(json_string_value(entry));
    if (!user) {
      ignore(path + ": the registration of \"" + executable + "\" names the user \"" +
             json_string_value(entry) + "\", who does not exist");
      return std::nullopt;
    }
    users.push_back(*user);
  }
  return users;
}

void ApplicationRegistrations::ignore(const std::string& warning) {
  isComplete_ = false;
  warn_(warning);
}

}  // namespace ostravel::linuxplatform
