#include "Tests/Support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

namespace ostravel::testing {

TemporaryFolder::TemporaryFolder() {
  std::string name = (std::filesystem::temp_directory_path() / "ostravel-test-XXXXXX").string();
  EXPECT_NE(::mkdtemp(name.data()), nullptr);
  EXPECT_EQ(::chmod(name.c_str(), 0755), 0);
  path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::path(std::string_view name) const {
  return name.empty() ? path_.string() : (path_ / name).string();
}

std::string TemporaryFolder::write(std::string_view name, std::string_view text) const {
  std::ofstream(path(name), std::ios::binary) << text;
  EXPECT_EQ(::chmod(path(name).c_str(), 0644), 0);
  return path(name);
}

}  // namespace ostravel::testing
