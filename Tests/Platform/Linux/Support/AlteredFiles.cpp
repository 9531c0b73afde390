#include "Tests/Platform/Linux/Support/AlteredFiles.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

namespace ostravel::testing {

namespace {

std::mutex lock;
// Guarded by lock. Shared with threads that call it.
std::shared_ptr<const AlteredFiles::Alter> active;

// The C library's function of this name.
template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

int openNext(const char* path, int flags, mode_t mode) {
  static auto* const original = next<decltype(open)>("open");
  return original(path, flags, mode);
}

std::optional<FileAnswer> answerFor(const char* path) {
  std::shared_ptr<const AlteredFiles::Alter> alter;
  {
    const std::lock_guard guard(lock);
    alter = active;
  }
  return alter ? (*alter)(path) : std::nullopt;
}

// As open(2).
int openAnswer(const FileAnswer& answer) {
  if (answer.openError != 0) {
    errno = answer.openError;
    return -1;
  }
  if (answer.isUnreadable) {
    // Nothing is mapped at its beginning.
    return openNext("/proc/self/mem", O_RDONLY | O_CLOEXEC, 0);
  }
  const int file = ::memfd_create("answer", MFD_CLOEXEC);
  if (file >= 0 && ::pwrite(file, answer.bytes.data(), answer.bytes.size(), 0) !=
                       static_cast<ssize_t>(answer.bytes.size())) {
    ::close(file);
    return -1;
  }
  return file;
}

}  // namespace

AlteredFiles::AlteredFiles(Alter alter) {
  const std::lock_guard guard(lock);
  active = std::make_shared<const Alter>(std::move(alter));
}

AlteredFiles::~AlteredFiles() {
  const std::lock_guard guard(lock);
  active.reset();
}

}  // namespace ostravel::testing

using ostravel::testing::answerFor;
using ostravel::testing::next;
using ostravel::testing::openAnswer;
using ostravel::testing::openNext;

extern "C" {

int open(const char* path, int flags, ...) {
  std::va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  const auto answer = answerFor(path);
  return answer ? openAnswer(*answer) : openNext(path, flags, mode);
}

std::FILE* fopen64(const char* path, const char* mode) {
  static auto* const original = next<decltype(fopen64)>("fopen64");
  const auto answer = answerFor(path);
  if (!answer) {
    return original(path, mode);
  }
  const int file = openAnswer(*answer);
  return file < 0 ? nullptr : ::fdopen(file, mode);
}
}
