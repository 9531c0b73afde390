#include "Platform/Linux/LinuxPlatform.h"

#include <unistd.h>

#include <utility>

#include "Platform/Linux/Liveness/CrashHandler.h"
#include "Platform/Linux/Services/JournalLog.h"
#include "Platform/Linux/Services/LinuxDispatchQueue.h"
#include "Platform/Linux/Services/LinuxDispatchTimer.h"
#include "Platform/Linux/Services/StderrLog.h"

namespace ostravel::linuxplatform {

namespace {

// For lines without an object's log.
constexpr std::string_view kDefaultSubsystem = platform::kFallbackLogSubsystem;
constexpr std::string_view kDefaultCategory = platform::kLogCategory;

std::unique_ptr<BackgroundWriter::Output> outputFor(LinuxPlatform::LogSink sink) {
  if (sink == LinuxPlatform::LogSink::journal) {
    return std::make_unique<JournalLog::Output>(std::string(kDefaultSubsystem),
                                                std::string(kDefaultCategory));
  }
  return std::make_unique<StderrLog::Output>(STDERR_FILENO);
}

}  // namespace

LinuxPlatform::LinuxPlatform(Options options)
    : options_(options),
      logWriter_(std::make_shared<BackgroundWriter>(
          outputFor(options.logSink), BackgroundWriter::kUsualCapacity, "ostravel-log")),
      defaultLog_(makeLog(std::string(kDefaultSubsystem), std::string(kDefaultCategory))),
      sockets_(options.marks) {}

LinuxPlatform::~LinuxPlatform() {
  timers_.stop();
}

bool LinuxPlatform::drain(std::chrono::steady_clock::time_point deadline) {
  timers_.stop();
  return workers_.drain(deadline);
}

bool LinuxPlatform::flushLog(std::chrono::steady_clock::time_point deadline) {
  return logWriter_->flush(deadline);
}

void LinuxPlatform::writeLogOnCrash() {
  CrashHandler::install(logWriter_, defaultLog_);
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
  const std::lock_guard guard(logsLock_);
  std::weak_ptr<platform::Log>& known = logs_[{subsystem, category}];
  std::shared_ptr<platform::Log> log = known.lock();
  if (!log) {
    if (options_.logSink == LogSink::journal) {
      log = std::make_shared<JournalLog>(logWriter_, subsystem, category,
                                         options_.logLevel.value_or(platform::LogLevel::debug));
    } else {
      log = std::make_shared<StderrLog>(logWriter_,
                                        options_.logLevel.value_or(platform::LogLevel::info));
    }
    known = log;
  }
  return log;
}

void LinuxPlatform::systemLog(std::string_view line) {
  defaultLog_->error("%{public}s", {line});
}

}  // namespace ostravel::linuxplatform
