#include "Platform/Linux/Liveness/Guardian.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

// In glibc 2.36 the header lacks this declaration for C++.
extern "C" {
#include <sys/pidfd.h>
}

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <new>
#include <span>
#include <sstream>
#include <string>
#include <string_view>

#include "Base/FileDescriptor.h"
#include "Base/ParseNumber.h"
#include "Platform/Linux/Kernel/CgroupRoot.h"
#include "Platform/Linux/Liveness/HangDetector.h"
#include "Platform/Linux/Liveness/HangLimit.h"
#include "Platform/Linux/Liveness/StarvationDetector.h"

namespace ostravel::linuxplatform {

namespace {

using Clock = HangDetector::Clock;
using Phase = HeartbeatRecord::Phase;

using namespace std::chrono_literals;

// At most 15 characters.
constexpr const char* kProcessName = "ostravel-guard";

constexpr int kExtension = STDERR_FILENO + 1;
constexpr int kLastFile = kExtension + 1;

// The heartbeat checks at least every quarter of a second. If it has not checked for this long, the
// cause is not a lagging participant.
constexpr auto kLongestCheckGap = Guardian::kRunLimit / 2;

// A stalled reader of standard error must not delay anything.
constexpr int kWriteTimeoutMilliseconds = 1000;

std::chrono::seconds limitOf(Phase phase) {
  switch (phase) {
    case Phase::starting:
      return Guardian::kStartLimit;
    case Phase::running:
      return Guardian::kRunLimit;
    case Phase::stopping:
      return Guardian::kStopLimit;
  }
  return Guardian::kRunLimit;
}

// The memory of this process's arguments (arg_start and arg_end of proc_pid_stat(5)); empty if
// unknown.
std::span<char> argumentMemory() {
  std::ifstream file("/proc/self/stat");
  std::string text;
  std::getline(file, text);
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  constexpr int kFirst = 3;
  constexpr int kStart = 48;
  std::string field;
  for (int number = kFirst; number <= kStart; ++number) {
    fields >> field;
  }
  const auto start = parseNumber<std::uintptr_t>(field);
  fields >> field;
  const auto end = parseNumber<std::uintptr_t>(field);
  const auto name = reinterpret_cast<std::uintptr_t>(program_invocation_name);
  const bool isThere = start && end && *start <= name && name < *end;
  return isThere ? std::span(program_invocation_name, *end - name) : std::span<char>();
}

// Lets pidof(8) and ps(1) distinguish the two processes, so that a signal for the extension, such
// as SIGSTOP, is not sent to its guardian as well.
void takeName() {
  ::prctl(PR_SET_NAME, kProcessName);
  const auto memory = argumentMemory();
  const std::string_view name = kProcessName;
  if (memory.size() < name.size() + 2) {
    return;
  }
  std::ranges::fill(memory, '\0');
  std::ranges::copy(name, memory.begin());
  // Without NUL at the end, the kernel shows what is before the first one, instead of many empty
  // arguments.
  memory.back() = ' ';
}

void keepOnlyStandardErrorAnd(int extension, int lastFile) {
  // Beyond both targets, so that neither overwrites the other.
  const int source = ::fcntl(lastFile, F_DUPFD, kLastFile + 1);
  ::dup2(extension, kExtension);
  const bool hasLastFile = source >= 0 && ::dup2(source, kLastFile) >= 0;
  ::close(STDIN_FILENO);
  ::close(STDOUT_FILENO);
  ::close_range(hasLastFile ? kLastFile + 1 : kLastFile, ~0U, 0);
}

void ignoreRequestsToEnd() {
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2,
                           SIGTSTP, SIGTTIN, SIGTTOU}) {
    std::signal(signal, SIG_IGN);
  }
}

void leaveControlGroup() {
  const auto root = openCgroupRoot();
  if (!root) {
    return;
  }
  const FileDescriptor members(
      ::openat(root->get(), "cgroup.procs", O_WRONLY | O_CLOEXEC | O_NONBLOCK));
  // Without permission, the guardian stays in its group.
  [[maybe_unused]] const auto written = ::write(members.get(), "0", 1);
}

void raisePriority() {
  sched_param parameters{};
  parameters.sched_priority = ::sched_get_priority_min(SCHED_RR);
  if (::sched_setscheduler(0, SCHED_RR, &parameters) != 0) {
    constexpr int kHighest = -20;
    ::setpriority(PRIO_PROCESS, 0, kHighest);
  }
}

// Waits for the extension to end; true if it has.
bool waitForEnd(std::chrono::milliseconds limit) {
  pollfd waited{kExtension, POLLIN, 0};
  return ::poll(&waited, 1, static_cast<int>(limit.count())) > 0;
}

void writeLine(const std::string& line) {
  pollfd waited{STDERR_FILENO, POLLOUT, 0};
  if (::poll(&waited, 1, kWriteTimeoutMilliseconds) > 0 && (waited.revents & POLLOUT) != 0) {
    // Shorter than PIPE_BUF, so it is written completely.
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
  }
}

// wholeProcess: not even the heartbeat ran.
enum class Extent { wholeProcess, participants };

// Names what made no progress.
std::string describe(const HeartbeatRecord& record, Extent extent) {
  switch (record.phase()) {
    case Phase::starting:
      return "the start";
    case Phase::stopping:
      return "the end";
    case Phase::running:
      break;
  }
  const std::string laggards = participantNames(record.laggards());
  return extent == Extent::wholeProcess || laggards.empty() ? "the whole process" : laggards;
}

// The kill comes first: nothing may delay it.
void kill(const std::string& culprit, std::chrono::seconds limit) {
  if (::pidfd_send_signal(kExtension, SIGKILL, nullptr, 0) == 0) {
    writeLine("ostravel-extension: killed: no heartbeat for " + std::to_string(limit.count()) +
              " s: " + culprit + " made no progress\n");
  }
  constexpr auto kForever = -1ms;
  waitForEnd(kForever);
}

// Returns when the extension has ended.
void watch(pid_t extension, const HeartbeatRecord& record) {
  HangDetector heartbeat(Clock::now(), record.beats());
  HangDetector checks(Clock::now(), record.checks());
  StarvationDetector starvation("/proc/" + std::to_string(extension) + "/task");
  HangLimit hangLimit(Guardian::kStarvedLimit);
  while (!waitForEnd(HangDetector::kInterval)) {
    const auto now = Clock::now();
    const auto limit = limitOf(record.phase());
    const bool isCheckMissing = checks.observe(now, record.checks(), kLongestCheckGap);
    const bool isMissing = heartbeat.observe(now, record.beats(), limit);
    // Observed only while the heartbeat is late.
    if (heartbeat.silence() < limit / 2) {
      starvation.forget();
      hangLimit.forget();
      continue;
    }
    const auto longest = hangLimit.observe(now, limit, starvation.observe());
    if (isMissing && heartbeat.silence() >= longest) {
      const auto extent = isCheckMissing ? Extent::wholeProcess : Extent::participants;
      kill(describe(record, extent), longest);
      return;
    }
  }
}

// Without memory nothing can be cleaned up.
void run(const Guardian::CleanUp& cleanUp) {
  try {
    cleanUp();
  } catch (const std::bad_alloc&) {
  }
}

[[noreturn]] void guard(pid_t process, int extension, int lastFile, const HeartbeatRecord& record,
                        const std::function<Guardian::CleanUp()>& prepare) {
  keepOnlyStandardErrorAnd(extension, lastFile);
  ignoreRequestsToEnd();
  takeName();
  ::setsid();
  // Keeps no file system in use.
  [[maybe_unused]] const int changed = ::chdir("/");
  leaveControlGroup();
  raisePriority();
  const Guardian::CleanUp cleanUp = prepare();
  watch(process, record);
  // The next extension may be waiting for it.
  ::close(kLastFile);
  run(cleanUp);
  ::_exit(EXIT_SUCCESS);
}

}  // namespace

platform::Result<Guardian> Guardian::start(const HeartbeatRecord& record, int lastFile,
                                           const std::function<CleanUp()>& prepare) {
  // Opened before the fork, so that it cannot refer to a later process with the same number.
  const pid_t self = ::getpid();
  const FileDescriptor extension(::pidfd_open(self, 0));
  if (!extension.isOpen()) {
    return platform::systemCallError(errno, "pidfd_open");
  }
  const pid_t process = ::fork();
  if (process < 0) {
    return platform::systemCallError(errno, "fork");
  }
  if (process == 0) {
    guard(self, extension.get(), lastFile, record, prepare);
  }
  return Guardian(process);
}

bool Guardian::hasEnded() {
  if (process_ <= 0 || ::waitpid(process_, nullptr, WNOHANG) == 0) {
    return false;
  }
  process_ = -1;
  return true;
}

}  // namespace ostravel::linuxplatform
