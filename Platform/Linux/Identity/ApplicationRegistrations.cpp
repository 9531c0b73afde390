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
#include <string_view>
#include <utility>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Base/JSONHandle.h"
#include "Base/JSONKeyPlaces.h"
#include "Platform/Interface/ProviderError.h"

namespace ostravel::linuxplatform {

using platform::Error;
using platform::Result;

namespace {

// Far more than any machine needs.
constexpr off_t kMaximumFileSize = 1024 * 1024;

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

Error invalid(const std::string& description) {
  return platform::providerError(platform::kInvalidConfigurationCode, description);
}

// With the errno of the call that failed.
Error unreadable(const std::string& path) {
  const int error = errno;
  return platform::systemCallError(error, path + ": cannot be read");
}

Result<std::string> contentOf(const std::string& path) {
  // Must not block on something that is not a regular file.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.get(), &status) != 0) {
    return unreadable(path);
  }
  if (const auto reason = distrust(status)) {
    return invalid(path + ": " + *reason);
  }
  if (!S_ISREG(status.st_mode) || status.st_size > kMaximumFileSize) {
    return invalid(path + ": is ignored: it is not a regular file of at most 1 MiB");
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t filled = 0;
  while (filled < text.size()) {
    const auto count = ::read(file.get(), text.data() + filled, text.size() - filled);
    if (count < 0) {
      return unreadable(path);
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

std::vector<std::string> ApplicationRegistrations::identifiers() const {
  std::vector<std::string> result;
  for (const auto& [executable, registration] : registrations_) {
    result.push_back(registration.identifier);
  }
  return result;
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

void ApplicationRegistrations::warnOfUselessPaths(const ProcessTable& processes) const {
  std::vector<std::string> paths;
  for (const auto& [executable, registration] : registrations_) {
    paths.push_back(executable);
  }
  std::sort(paths.begin(), paths.end());
  const auto problems = processes.problemsWith(paths);
  for (std::size_t index = 0; index < paths.size(); ++index) {
    if (problems[index]) {
      warn_(registrations_.at(paths[index]).place + ": \"" + paths[index] + "\" " +
            *problems[index]);
    }
  }
}

void ApplicationRegistrations::readFolder() {
  struct Close {
    void operator()(DIR* folder) const { ::closedir(folder); }
  };
  const std::unique_ptr<DIR, Close> folder(::opendir(folder_.c_str()));
  struct stat status {};
  if (!folder || ::fstat(::dirfd(folder.get()), &status) != 0) {
    if (errno != ENOENT) {
      ignore(unreadable(folder_));
    }
    return;
  }
  if (const auto reason = distrust(status)) {
    ignore(invalid(folder_ + ": " + *reason));
    return;
  }
  for (const std::string& name : registrationFiles(folder.get())) {
    auto registrations = readFile(folder_ + "/" + name);
    if (!registrations) {
      ignore(registrations.error());
      continue;
    }
    for (auto& [executable, registration] : *registrations) {
      registrations_.insert_or_assign(executable, std::move(registration));
    }
  }
}

Result<ApplicationRegistrations::Registrations> ApplicationRegistrations::readFile(
    const std::string& path) {
  const auto text = contentOf(path);
  if (!text) {
    return text.error();
  }
  json_error_t failure{};
  const JSONHandle document(
      json_loadb(text->data(), text->size(), JSON_REJECT_DUPLICATES | JSON_DECODE_ANY, &failure));
  if (!document) {
    return invalid(path + ":" + std::to_string(failure.line) + ":" +
                   std::to_string(failure.column) + ": " + failure.text);
  }
  if (!json_is_object(document.get())) {
    return invalid(path + ":1:1: registrations must be a JSON object");
  }
  const JSONKeyPlaces places(*text);
  Registrations registrations;
  const char* executable = nullptr;
  json_t* value = nullptr;
  json_object_foreach(document.get(), executable, value) {
    const std::string place = path + places.of(executable);
    if (executable[0] != '/') {
      return invalid(place + ": \"" + executable + "\" is not the absolute path of an executable");
    }
    auto registration = parseRegistration(place, executable, value);
    if (!registration) {
      return std::move(registration).error();
    }
    registrations.emplace(executable, *std::move(registration));
  }
  return registrations;
}

Result<ApplicationRegistrations::Registration> ApplicationRegistrations::parseRegistration(
    const std::string& place, const char* executable, json_t* value) {
  Registration registration{.place = place, .identifier = {}, .users = {}};
  const json_t* identifier = value;
  if (json_is_object(value)) {
    identifier = json_object_get(value, "identifier");
    const char* name = nullptr;
    json_t* member = nullptr;
    json_object_foreach(value, name, member) {
      if (std::strcmp(name, "users") == 0) {
        auto users = parseUsers(place, executable, member);
        if (!users) {
          return std::move(users).error();
        }
        registration.users = *std::move(users);
      } else if (std::strcmp(name, "identifier") != 0) {
        return invalid(place + ": the registration of \"" + executable + "\" has \"" + name +
                       "\", which is neither \"identifier\" nor \"users\"");
      }
    }
  }
  if (json_string_length(identifier) == 0) {
    return invalid(place + ": the identifier of \"" + executable +
                   "\" must be a text that is not empty");
  }
  registration.identifier.assign(json_string_value(identifier), json_string_length(identifier));
  return registration;
}

Result<std::vector<uid_t>> ApplicationRegistrations::parseUsers(const std::string& place,
                                                                const char* executable,
                                                                json_t* value) {
  const auto notNames = [&] {
    return invalid(place + ": the users of \"" + executable + "\" must be a list of names");
  };
  if (!json_is_array(value)) {
    return notNames();
  }
  std::vector<uid_t> users;
  std::size_t index = 0;
  json_t* entry = nullptr;
  json_array_foreach(value, index, entry) {
    if (!json_is_string(entry)) {
      return notNames();
    }
    const auto user = SystemUsers::numberOf(json_string_value(entry));
    if (!user) {
      return invalid(place + ": the registration of \"" + executable + "\" names the user \"" +
                     json_string_value(entry) + "\", who does not exist");
    }
    users.push_back(*user);
  }
  return users;
}

void ApplicationRegistrations::ignore(const Error& error) {
  isComplete_ = false;
  warn_(error.localizedDescription);
}

}  // namespace ostravel::linuxplatform
