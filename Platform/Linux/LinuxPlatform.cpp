#include "Platform/Linux/LinuxPlatform.h"

#include <unistd.h>

#include <utility>

#include "Platform/Linux/JournalLog.h"
#include "Platform/Linux/LinuxDispatchQueue.h"
#include "Platform/Linux/LinuxDispatchTimer.h"
#include "Platform/Linux/StderrLog.h"

namespace ostravel::linuxplatform {

namespace {

// Fields of lines that belong to no object.
constexpr const char* kDefaultSubsystem = "OstravelNetworkExtension";
constexpr const char* kDefaultCategory = "default";

std::shared_ptr<platform::Log> logFor(const LinuxPlatform::Options& options,
                                      const std::string& subsystem, const std::string& category) {
  if (options.logSink == LinuxPlatform::LogSink::journal) {
    return std::make_shared<JournalLog>(subsystem, category);
  }
  return std::make_shared<StderrLog>(STDERR_FILENO, options.writesDebugLines
                                                        ? StderrLog::Debug::isWritten
                                                        : StderrLog::Debug::isDropped);
}

}  // namespace

LinuxPlatform::LinuxPlatform(Options options)
    : options_(options),
      defaultLog_(logFor(options, kDefaultSubsystem, kDefaultCategory)),
      sockets_(options.marks) {}

LinuxPlatform::~LinuxPlatform() {
  timers_.stop();
}

bool LinuxPlatform::drain(std::chrono::steady_clock::time_point deadline) {
  timers_.stop();
  return workers_.drain(deadline);
}

std::shared_ptr<platform::DispatchQueue> LinuxPlatform::makeQueue(
    std::string label, platform::DispatchQueueKind kind) {
  return std::make_shared<LinuxDispatchQueue>(workers_, std::move(label), kind);
}

std::shared_ptr<platform::DispatchTimer> LinuxPlatform::makeTimer(
    std::shared_ptr<platform::DispatchQueue> queue) {
  return std::make_shared<LinuxDispatchTimer>(timers_, std::move(queue));
}

std::shared_ptr<platform::Log> LinuxPlatform::makeLog(std::string subsystem, std::string category) {
  return logFor(options_, subsystem, category);
}

void LinuxPlatform::systemLog(std::string_view line) {
  defaultLog_->error("%{public}s", {line});
}

}  // namespace ostravel::linuxplatform
