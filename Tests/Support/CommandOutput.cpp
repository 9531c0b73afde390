#include "Tests/Support/CommandOutput.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>

namespace ostravel::testing {

std::string outputOf(const std::string& command) {
  std::string output;
  std::FILE* const pipe = ::popen(command.c_str(), "r");
  std::array<char, 4096> chunk{};
  while (const std::size_t size = std::fread(chunk.data(), 1, chunk.size(), pipe)) {
    output.append(chunk.data(), size);
  }
  EXPECT_EQ(::pclose(pipe), 0) << command;
  return output;
}

}  // namespace ostravel::testing
