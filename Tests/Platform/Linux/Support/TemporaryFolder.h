#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace ostravel::testing {

// A new folder, readable by everybody and removed with its content on destruction.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  std::string path(std::string_view name = "") const;

  // Both return the path.
  std::string write(std::string_view name, std::string_view text) const;
  // A copy of the helper program under another name.
  std::string copyHelper(std::string_view name) const;

 private:
  std::filesystem::path path_;
};

}  // namespace ostravel::testing
