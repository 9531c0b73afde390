#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Platform/Linux/Processes/SystemUsers.h"

struct json_t;

namespace ostravel::linuxplatform {

// The identifiers that the administrator has given to programs: every file *.json of one folder
// holds a JSON object (RFC 8259) of absolute executable paths and their identifiers,
//
//   {
//     "/opt/updater/bin/updater": "com.example.updater",
//     "/opt/vpn/bin/client": {"identifier": "com.example.vpn", "users": ["alice"]}
//   }
//
// An identifier is for root and system users, who have nobody else's code in their programs, and
// for the users that are named: anybody can load what he likes into a program that he starts
// himself. Where two files name the same path, the one later in the order of names counts. The
// folder and the files are believed only if they belong to root and nobody else can write to them.
// What is not believed or not understood is ignored as a whole file, with one warning. As they were
// when they were read; used by one thread at a time.
class ApplicationRegistrations {
 public:
  static constexpr const char* kDefaultFolder = "/etc/ostravel/applications.d";

  // warn takes a sentence for people that names the file and, for text that is not JSON, line and
  // column. A folder that does not exist is an empty one. Reads the folder.
  ApplicationRegistrations(std::string folder, std::function<void(const std::string&)> warn,
                           SystemUsers systemUsers = SystemUsers::read());

  // Whether nothing had to be ignored.
  bool isComplete() const { return isComplete_; }
  std::size_t size() const { return registrations_.size(); }

  // The identifier of this executable, if it is for all of these users.
  std::optional<std::string> identifierOf(std::string_view executable,
                                          std::initializer_list<uid_t> users) const;

 private:
  struct Registration {
    std::string identifier;
    // Besides root and system users.
    std::vector<uid_t> users;
  };
  using Registrations = std::unordered_map<std::string, Registration>;

  void readFolder();
  void readFile(const std::string& path);
  std::optional<Registrations> parse(const std::string& path, std::string_view text);
  std::optional<Registration> parseRegistration(const std::string& path, const char* executable,
                                                json_t* value);
  std::optional<std::vector<uid_t>> parseUsers(const std::string& path, const char* executable,
                                               json_t* value);
  void ignore(const std::string& warning);

  std::string folder_;
  std::function<void(const std::string&)> warn_;
  SystemUsers systemUsers_;
  Registrations registrations_;
  bool isComplete_ = true;
};

}  // namespace ostravel::linuxplatform
