#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace ostravel::testing {

// A new folder, readable by everybody and removed with its content on destruction. Its path is
// short enough for a socket.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  // Of the folder, or of the file with this name in it, which need not exist.
  std::string path(std::string_view name = "") const;

  // Writes a file that everybody may read, and returns its path.
  std::string write(std::string_view name, std::string_view text) const;

 private:
  std::filesystem::path path_;
};

}  // namespace ostravel::testing
