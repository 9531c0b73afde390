#include "Tests/Platform/Linux/Support/Helper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <csignal>
#include <filesystem>
#include <fstream>

namespace ostravel::testing {

Helper::Helper(const std::string& program, const std::function<bool()>& inChild) {
  std::array<int, 2> in{};
  std::array<int, 2> out{};
  EXPECT_EQ(::pipe2(in.data(), O_CLOEXEC), 0);
  EXPECT_EQ(::pipe2(out.data(), O_CLOEXEC), 0);
  pid_ = ::fork();
  EXPECT_GE(pid_, 0);
  if (pid_ == 0) {
    if (::dup2(in[0], STDIN_FILENO) >= 0 && ::dup2(out[1], STDOUT_FILENO) >= 0 && inChild()) {
      ::execl(program.c_str(), program.c_str(), nullptr);
    }
    ::_exit(EXIT_FAILURE);
  }
  ::close(in[0]);
  ::close(out[1]);
  toHelper_ = in[1];
  fromHelper_ = out[0];
  EXPECT_EQ(readLine(), "ready") << program;
}

std::string Helper::ask(const std::string& line) {
  const std::string ended = line + "\n";
  EXPECT_EQ(::write(toHelper_, ended.data(), ended.size()), static_cast<ssize_t>(ended.size()));
  return readLine();
}

std::uint16_t Helper::makeSocket(const std::string& command, std::uint16_t port) {
  const std::string answer = ask(command + " " + std::to_string(port));
  std::uint16_t own = 0;
  std::from_chars(answer.data(), answer.data() + answer.size(), own);
  EXPECT_NE(own, 0) << command << ": " << answer;
  return own;
}

void Helper::kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    EXPECT_EQ(::waitpid(pid_, nullptr, 0), pid_);
    ::close(toHelper_);
    ::close(fromHelper_);
    pid_ = 0;
  }
}

std::string Helper::readLine() {
  std::string line;
  for (char byte = 0; ::read(fromHelper_, &byte, 1) == 1 && byte != '\n';) {
    line += byte;
  }
  return line;
}

void makeProcessNumbersRise() {
  constexpr pid_t kEnough = 1000;
  pid_t limit = 0;
  ASSERT_TRUE(std::ifstream("/proc/sys/kernel/pid_max") >> limit);
  for (pid_t next = limit; next + kEnough > limit;) {
    next = ::fork();
    ASSERT_GE(next, 0);
    if (next == 0) {
      ::_exit(EXIT_SUCCESS);
    }
    ASSERT_EQ(::waitpid(next, nullptr, 0), next);
  }
}

std::vector<std::unique_ptr<Helper>> makeCrowd() {
  std::vector<std::unique_ptr<Helper>> crowd;
  for (int count = 0; count < 4; ++count) {
    crowd.push_back(std::make_unique<Helper>());
    EXPECT_EQ(crowd.back()->ask("hold 19000"), "done");
  }
  return crowd;
}

std::string copyHelper(const TemporaryFolder& folder, std::string_view name) {
  EXPECT_TRUE(std::filesystem::copy_file(OSTRAVEL_HELPER, folder.path(name)));
  return folder.path(name);
}

}  // namespace ostravel::testing
