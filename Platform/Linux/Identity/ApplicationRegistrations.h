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

#include "Platform/Interface/Result.h"
#include "Platform/Linux/Processes/ProcessTable.h"
#include "Platform/Linux/Processes/SystemUsers.h"

struct json_t;

namespace ostravel::linuxplatform {

// The identifiers that the administrator has assigned to programs. Every file *.json in one folder
// contains a JSON object (RFC 8259) that maps absolute executable paths to identifiers:
//
//   {
//     "/opt/updater/bin/updater": "com.example.updater",
//     "/opt/vpn/bin/client": {"identifier": "com.example.vpn", "users": ["alice"]}
//   }
//
// An identifier applies to root and system users, whose programs contain no other user's code, and
// to the users listed: users can load any code into a program that they start. If two files name
// the same path, the later one in name order wins. The folder and the files are trusted only if
// they belong to root and nobody else can write to them. A file that is not trusted or not valid is
// ignored as a whole, with one warning. A snapshot from when the files were read; used by one
// thread at a time.
class ApplicationRegistrations {
 public:
  static constexpr const char* kDefaultFolder = "/etc/ostravel/applications.d";

  // Reads the folder; a missing folder counts as empty. warn receives a sentence with the file and,
  // for a problem in its content, the line and column.
  ApplicationRegistrations(std::string folder, std::function<void(const std::string&)> warn,
                           SystemUsers systemUsers = SystemUsers::read());

  // Warns of registrations that have no effect because no process can run under their path. Waits
  // briefly for the file system. processes: of the calling thread.
  void warnOfUselessPaths(const ProcessTable& processes) const;

  // False if anything was ignored.
  bool isComplete() const { return isComplete_; }
  std::size_t size() const { return registrations_.size(); }

  // All identifiers that are assigned to a program.
  std::vector<std::string> identifiers() const;

  // The identifier of this executable, if it applies to all of these users.
  std::optional<std::string> identifierOf(std::string_view executable,
                                          std::initializer_list<uid_t> users) const;

 private:
  struct Registration {
    // The file, line and column of its executable's path.
    std::string place;
    std::string identifier;
    // Besides root and system users.
    std::vector<uid_t> users;
  };
  using Registrations = std::unordered_map<std::string, Registration>;

  void readFolder();
  static platform::Result<Registrations> readFile(const std::string& path);
  static platform::Result<Registration> parseRegistration(const std::string& place,
                                                          const char* executable, json_t* value);
  static platform::Result<std::vector<uid_t>> parseUsers(const std::string& place,
                                                         const char* executable, json_t* value);
  void ignore(const platform::Error& error);

  std::string folder_;
  std::function<void(const std::string&)> warn_;
  SystemUsers systemUsers_;
  Registrations registrations_;
  bool isComplete_ = true;
};

}  // namespace ostravel::linuxplatform
