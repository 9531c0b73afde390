#include "Platform/Linux/Processes/FileLookup.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform {

namespace {

using Clock = std::chrono::steady_clock;

// An open file as the kernel sees it.
struct OpenFile {
  std::uint64_t mount = 0;
  ino_t inode = 0;
};

FileDescriptor openPath(const std::string& path, std::uint64_t resolve) {
  open_how how{};
  // O_PATH does not open the file itself, so the kernel does not ask the file system.
  how.flags = O_PATH | O_CLOEXEC | O_NOFOLLOW;
  how.resolve = resolve | RESOLVE_NO_MAGICLINKS;
  return FileDescriptor(
      static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
}

std::optional<std::uint64_t> numberAfter(std::string_view text, std::string_view name) {
  const auto found = text.find(name);
  if (found == std::string_view::npos) {
    return std::nullopt;
  }
  text.remove_prefix(found + name.size());
  std::uint64_t number = 0;
  const char* const textEnd = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), textEnd, number);
  // At the end of the text, digits may be missing.
  return error == std::errc() && end != textEnd ? std::optional(number) : std::nullopt;
}

// The kernel answers this itself (proc_pid_fdinfo(5), Linux 5.14), whereas stat(2) asks the file
// system, which may block.
std::optional<OpenFile> describe(const FileDescriptor& file) {
  const FileDescriptor description(
      ::open(("/proc/self/fdinfo/" + std::to_string(file.get())).c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, 512> text;
  const auto length =
      description.isOpen() ? ::read(description.get(), text.data(), text.size()) : -1;
  if (length <= 0) {
    return std::nullopt;
  }
  const std::string_view content(text.data(), static_cast<std::size_t>(length));
  const auto mount = numberAfter(content, "mnt_id:\t");
  const auto inode = numberAfter(content, "\nino:\t");
  return mount && inode ? std::optional(OpenFile{*mount, *inode}) : std::nullopt;
}

std::optional<FileIdentity> identityOf(const FileDescriptor& file, const std::string& mountsFile) {
  const auto description = file.isOpen() ? describe(file) : std::nullopt;
  if (!description) {
    return std::nullopt;
  }
  const auto mounts = MountTable::read(mountsFile);
  const auto device = mounts.find(description->mount);
  return device == mounts.end() ? std::nullopt
                                : std::optional(FileIdentity{device->second, description->inode});
}

// The thread receives none of the process's signals. False if it cannot be created.
bool startDetached(std::function<void()> body) {
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  bool isStarted = true;
  try {
    std::thread(std::move(body)).detach();
  } catch (const std::system_error&) {
    isStarted = false;
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return isStarted;
}

}  // namespace

// Shared with the thread, which may outlive everything else.
struct FileLookup::Question {
  explicit Question(std::string text) : what(std::move(text)) {}

  const std::string what;
  std::mutex lock;
  std::condition_variable answered;
  bool isAnswered = false;
  Clock::time_point answerTime;
  std::optional<FileIdentity> file;
};

FileLookup::FileLookup(SearchAllowance& allowance) : allowance_(allowance) {}

FileLookup::Answer FileLookup::at(const std::string& path, uid_t user) {
  // Read first, so that the mount information is no older than the file.
  mounts_.generation();
  const FileDescriptor file = openPath(path, RESOLVE_CACHED);
  if (file.isOpen()) {
    const auto description = describe(file);
    const auto device = description ? mounts_.deviceOf(description->mount) : std::nullopt;
    return {true, device ? std::optional(FileIdentity{*device, description->inode}) : std::nullopt};
  }
  // EINVAL and ENOSYS come from kernels that cannot restrict a look-up to their cache.
  if (errno != EAGAIN && errno != EINVAL && errno != ENOSYS) {
    return {true, std::nullopt};
  }
  return askInThread(path, user,
                     [path] { return identityOf(openPath(path, 0), "/proc/self/mountinfo"); });
}

FileLookup::Answer FileLookup::executableOf(pid_t pid, uid_t user) {
  const std::string folder = "/proc/" + std::to_string(pid);
  return askInThread(folder, user, [folder] {
    // Following this link makes a network file system check that the file still exists.
    const FileDescriptor file(::open((folder + "/exe").c_str(), O_PATH | O_CLOEXEC));
    return identityOf(file, folder + "/mountinfo");
  });
}

FileLookup::Answer FileLookup::askInThread(const std::string& what, uid_t user, Search search) {
  if (const auto last = questions_.find(user); last != questions_.end()) {
    const std::shared_ptr<Question> question = last->second;
    const std::lock_guard guard(question->lock);
    if (!question->isAnswered) {
      return {};
    }
    questions_.erase(last);
    if (question->what == what && Clock::now() - question->answerTime < kLateAnswerLife) {
      return {true, question->file};
    }
  }
  if (!allowance_.permits(user) || !makeRoom()) {
    return {};
  }
  const SearchAllowance::Charge charge(allowance_, user, SearchAllowance::Counted::time);
  const auto question = std::make_shared<Question>(what);
  const bool isStarted = startDetached([question, search = std::move(search)] {
    const auto file = search();
    const std::lock_guard guard(question->lock);
    question->file = file;
    question->isAnswered = true;
    question->answerTime = Clock::now();
    question->answered.notify_one();
  });
  if (!isStarted) {
    return {};
  }
  questions_.emplace(user, question);
  std::unique_lock lock(question->lock);
  if (!question->answered.wait_for(lock, kPatience, [&question] { return question->isAnswered; })) {
    return {};
  }
  // Do not reuse it: the file may change before the next question.
  questions_.erase(user);
  return {true, question->file};
}

bool FileLookup::makeRoom() {
  if (questions_.size() >= kMaximumThreads) {
    std::erase_if(questions_, [](const auto& entry) {
      const std::lock_guard guard(entry.second->lock);
      return entry.second->isAnswered;
    });
  }
  return questions_.size() < kMaximumThreads;
}

}  // namespace ostravel::linuxplatform
