#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <string>

#include "Base/FileDescriptor.h"

namespace ostravel::testing {

// A pipe whose output a test reads.
class TestPipe {
 public:
  TestPipe() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    output_ = FileDescriptor(ends[0]);
    input_ = FileDescriptor(ends[1]);
  }

  int input() const { return input_.get(); }
  int output() const { return output_.get(); }
  void closeInput() { input_ = FileDescriptor(); }
  void closeOutput() { output_ = FileDescriptor(); }

  // To the end; up to what has been written if the output does not block.
  std::string read() const {
    std::string text;
    std::array<char, 65536> bytes{};
    for (auto size = ::read(output(), bytes.data(), bytes.size()); size > 0;
         size = ::read(output(), bytes.data(), bytes.size())) {
      text.append(bytes.data(), static_cast<std::size_t>(size));
    }
    return text;
  }

 private:
  FileDescriptor output_;
  FileDescriptor input_;
};

}  // namespace ostravel::testing
