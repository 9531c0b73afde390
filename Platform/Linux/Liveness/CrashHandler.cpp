#include "Platform/Linux/Liveness/CrashHandler.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <utility>

namespace ostravel::linuxplatform {

namespace {

constexpr std::array kSignals{SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS};

struct Installation {
  const std::shared_ptr<BackgroundWriter> writer;
  const std::shared_ptr<platform::Log> log;
  // The previous handlers, such as those of a sanitizer.
  std::array<struct sigaction, kSignals.size()> earlier{};
};

// Never freed: the process may crash while it exits.
std::atomic<Installation*> installation = nullptr;
std::atomic<bool> isWritten = false;
std::atomic<bool> isBeingWritten = false;

// A second crashing thread must not end the process while the first one is still writing.
void waitForFirstThread() {
  constexpr int kMilliseconds = 2000;
  for (int waited = 0; waited < kMilliseconds && !isWritten; ++waited) {
    const timespec millisecond{.tv_sec = 0, .tv_nsec = 1'000'000};
    ::nanosleep(&millisecond, nullptr);
  }
}

void restoreEarlierHandlers(const Installation& current) {
  for (std::size_t index = 0; index < kSignals.size(); ++index) {
    ::sigaction(kSignals[index], &current.earlier[index], nullptr);
  }
}

// Async-signal-safe throughout.
void handleSignal(int signal) {
  const int errorOfCaller = errno;
  const Installation& current = *installation;
  if (isBeingWritten.exchange(true)) {
    waitForFirstThread();
  } else {
    current.writer->writeInCrash();
    isWritten = true;
  }
  restoreEarlierHandlers(current);
  // The signal is blocked until this handler returns, and then ends the process as it would have
  // without the handler.
  ::raise(signal);
  errno = errorOfCaller;
}

// Replaces the standard library's handler, which writes to standard error and would wait for its
// reader.
[[noreturn]] void handleTerminate() {
  platform::Log& log = *installation.load()->log;
  try {
    if (const std::exception_ptr exception = std::current_exception()) {
      std::rethrow_exception(exception);
    }
    log.error("OstravelProxy: Terminated");
  } catch (const std::exception& exception) {
    log.error("OstravelProxy: Terminated by an exception: %{public}s", {exception.what()});
  } catch (...) {
    log.error("OstravelProxy: Terminated by an exception");
  }
  std::abort();
}

}  // namespace

void CrashHandler::install(std::shared_ptr<BackgroundWriter> writer,
                           std::shared_ptr<platform::Log> log) {
  auto* const current = new Installation{std::move(writer), std::move(log)};
  installation = current;
  struct sigaction action {};
  action.sa_handler = &handleSignal;
  action.sa_flags = SA_ONSTACK | SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (std::size_t index = 0; index < kSignals.size(); ++index) {
    ::sigaction(kSignals[index], &action, &current->earlier[index]);
  }
  std::set_terminate(&handleTerminate);
}

}  // namespace ostravel::linuxplatform
