#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace ostravel::linuxplatform {

// The identifiers that the administrator has given to programs: every file *.json of one folder
// holds a JSON object (RFC 8259) of absolute executable paths and their identifiers,
//
//   {"/opt/updater/bin/updater": "com.example.updater"}
//
// Where two files name the same path, the one later in the order of names counts. The folder and
// the files are believed only if they belong to root and nobody else can write to them. What is not
// believed or not understood is ignored as a whole file, with one warning. As they were when they
// were read; used by one thread at a time.
class ApplicationRegistrations {
 public:
  static constexpr const char* kDefaultFolder = "/etc/ostravel/applications.d";

  // warn takes a sentence for people that names the file and, for text that is not JSON, line and
  // column. A folder that does not exist is an empty one. Reads the folder.
  ApplicationRegistrations(std::string folder, std::function<void(const std::string&)> warn);

  // Whether nothing had to be ignored.
  bool isComplete() const { return isComplete_; }
  std::size_t size() const { return identifiers_.size(); }

  std::optional<std::string> identifierOf(std::string_view executable) const;

 private:
  using Identifiers = std::unordered_map<std::string, std::string>;

  void readFolder();
  void readFile(const std::string& path);
  std::optional<Identifiers> parse(const std::string& path, std::string_view text);
  void ignore(const std::string& warning);

  std::string folder_;
  std::function<void(const std::string&)> warn_;
  Identifiers identifiers_;
  bool isComplete_ = true;
};

}  // namespace ostravel::linuxplatform
