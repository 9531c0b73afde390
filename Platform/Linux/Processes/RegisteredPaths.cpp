#include "Platform/Linux/Processes/RegisteredPaths.h"

#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

namespace ostravel::linuxplatform {

namespace {

using Problem = std::optional<std::string>;

constexpr const char* kUnanswered =
    "is on a file system that does not answer, so it is not known whether the registration has "
    "any effect";

Problem problemWith(const std::string& path) {
  struct Release {
    void operator()(char* text) const { std::free(text); }
  };
  const std::unique_ptr<char, Release> target(::realpath(path.c_str(), nullptr));
  if (!target && (errno == ENOENT || errno == ENOTDIR)) {
    return "does not exist: the registration has no effect until it does";
  }
  if (!target) {
    return std::string("cannot be examined: ") + std::strerror(errno);
  }
  if (target.get() != path) {
    return "is not the path of the file itself, so the registration has no effect: register \"" +
           std::string(target.get()) + "\"";
  }
  return std::nullopt;
}

// Shared with the thread, which may outlive the question.
struct Answers {
  std::mutex lock;
  std::condition_variable changed;
  std::vector<Problem> problems;
};

}  // namespace

std::vector<Problem> RegisteredPaths::problemsWith(const std::vector<std::string>& paths,
                                                   std::chrono::milliseconds patience) {
  const auto answers = std::make_shared<Answers>();
  try {
    std::thread([answers, paths] {
      for (const std::string& path : paths) {
        Problem problem = problemWith(path);
        const std::lock_guard guard(answers->lock);
        answers->problems.push_back(std::move(problem));
        answers->changed.notify_one();
      }
    }).detach();
  } catch (const std::system_error&) {
    // No thread can be created. Report no problems: more important operations fail as well.
    return std::vector<Problem>(paths.size());
  }
  std::unique_lock guard(answers->lock);
  answers->changed.wait_for(guard, patience,
                            [&] { return answers->problems.size() == paths.size(); });
  std::vector<Problem> problems = answers->problems;
  problems.resize(paths.size(), kUnanswered);
  return problems;
}

}  // namespace ostravel::linuxplatform
