#include "Tests/Support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace ostravel::testing {
namespace {

// Longer than anything takes on a busy machine.
constexpr int kPatienceMilliseconds = 30'000;

void waitUntilReadable(int descriptor, const char* what) {
  pollfd wait{.fd = descriptor, .events = POLLIN, .revents = 0};
  if (::poll(&wait, 1, kPatienceMilliseconds) != 1) {
    throw std::runtime_error(std::string("nothing came: ") + what);
  }
}

std::array<int, 2> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe");
  }
  return ends;
}

void applyLimits(const ChildProcess::Options& options) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_max = options.hardDescriptorLimit.value_or(limit.rlim_max);
  limit.rlim_cur = options.softDescriptorLimit.value_or(limit.rlim_cur);
  limit.rlim_cur = std::min(limit.rlim_cur, limit.rlim_max);
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

std::vector<std::string> environmentWith(const std::vector<std::string>& changes) {
  std::vector<std::string> result;
  const auto nameOf = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
  for (char** entry = environ; *entry != nullptr; ++entry) {
    bool changed = false;
    for (const std::string& change : changes) {
      changed = changed || nameOf(change) == nameOf(*entry);
    }
    if (!changed) {
      result.emplace_back(*entry);
    }
  }
  for (const std::string& change : changes) {
    if (change.find('=') != std::string::npos) {
      result.push_back(change);
    }
  }
  return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& string : strings) {
    pointers.push_back(string.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, const Options& options) {
  const std::array<int, 2> output = makePipe();
  const std::array<int, 2> error = makePipe();
  // Prepared before the fork: afterwards the child may not allocate.
  std::vector<std::string> arguments = command;
  std::vector<std::string> environment = environmentWith(options.environment);
  const std::vector<char*> argumentPointers = pointersTo(arguments);
  const std::vector<char*> environmentPointers = pointersTo(environment);
  process_ = ::fork();
  if (process_ == 0) {
    ::dup2(options.output.value_or(output[1]), STDOUT_FILENO);
    ::dup2(error[1], STDERR_FILENO);
    applyLimits(options);
    ::execve(argumentPointers[0], argumentPointers.data(), environmentPointers.data());
    ::_exit(127);
  }
  ::close(output[1]);
  ::close(error[1]);
  output_.descriptor = output[0];
  error_.descriptor = error[0];
}

ChildProcess::~ChildProcess() {
  if (process_ > 0) {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  closeOutput();
  if (discarding_.joinable()) {
    discarding_.join();
  }
  ::close(error_.descriptor);
}

void ChildProcess::closeOutput() {
  if (output_.descriptor >= 0) {
    ::close(output_.descriptor);
    output_.descriptor = -1;
  }
}

void ChildProcess::discardError() {
  discarding_ = std::thread([descriptor = error_.descriptor] {
    std::array<char, 4096> bytes{};
    while (::read(descriptor, bytes.data(), bytes.size()) > 0) {
    }
  });
}

void ChildProcess::sendSignal(int number) const {
  ::kill(process_, number);
}

void ChildProcess::suspend() const {
  sendSignal(SIGSTOP);
  siginfo_t state{};
  if (::waitid(P_PID, static_cast<id_t>(process_), &state, WSTOPPED) != 0) {
    throw std::runtime_error("a child process cannot be stopped");
  }
}

void ChildProcess::waitForOutput() const {
  waitUntilReadable(output_.descriptor, "output");
}

int ChildProcess::waitForExit() {
  const int descriptor = static_cast<int>(::syscall(SYS_pidfd_open, process_, 0));
  waitUntilReadable(descriptor, "the end of the program");
  ::close(descriptor);
  int status = 0;
  ::waitpid(process_, &status, 0);
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

long ChildProcess::processorTicks() const {
  std::ifstream file("/proc/" + std::to_string(process_) + "/stat");
  std::string text;
  std::getline(file, text);
  // After the name, which may contain anything, utime is the 12th field and stime the 13th.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int field = 0; field < 11; ++field) {
    fields >> skipped;
  }
  long user = 0;
  long system = 0;
  fields >> user >> system;
  return user + system;
}

bool ChildProcess::fill(Stream& stream) {
  waitUntilReadable(stream.descriptor, "output of the program");
  std::array<char, 4096> bytes{};
  const ssize_t size = ::read(stream.descriptor, bytes.data(), bytes.size());
  if (size <= 0) {
    return false;
  }
  stream.unread.append(bytes.data(), static_cast<std::size_t>(size));
  return true;
}

std::string ChildProcess::readLine(Stream& stream) {
  std::size_t end = stream.unread.find('\n');
  while (end == std::string::npos) {
    if (!fill(stream)) {
      return readToEnd(stream);
    }
    end = stream.unread.find('\n');
  }
  std::string line = stream.unread.substr(0, end);
  stream.unread.erase(0, end + 1);
  return line;
}

std::string ChildProcess::readToEnd(Stream& stream) {
  while (fill(stream)) {
  }
  return std::exchange(stream.unread, std::string());
}

}  // namespace ostravel::testing
