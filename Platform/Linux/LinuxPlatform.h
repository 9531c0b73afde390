#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Base/BackgroundWriter.h"
#include "Platform/Interface/Platform.h"
#include "Platform/Linux/Services/LinuxSocketCalls.h"
#include "Platform/Linux/Services/RandomUUIDSource.h"
#include "Platform/Linux/Services/TimerService.h"
#include "Platform/Linux/Services/WorkerPool.h"
#include "Platform/Shared/ICUTextServices.h"
#include "Platform/Shared/POSIXClock.h"

namespace ostravel::linuxplatform {

// Queues, timers, logs and the other basic services, with the six threads that they need. One per
// process, created and owned by the process entry, which must ignore SIGPIPE: our sockets and the
// log report a closed peer as an error.
class LinuxPlatform final : public platform::Platform {
 public:
  enum class LogSink { standardError, journal };
  struct Options {
    LogSink logSink = LogSink::standardError;
    // The least important lines that are written. Absent: all of them to the journal, and all but
    // debug lines to standard error.
    std::optional<platform::LogLevel> logLevel = std::nullopt;
    // How sockets are marked as our own.
    PacketMarks marks = {};
  };

  // Throws std::system_error if the threads cannot be created.
  explicit LinuxPlatform(Options options);
  // Stops the timers, waits until every item has run, and then briefly for the log's reader.
  ~LinuxPlatform() override;

  // Stops the timers, then waits until no item is waiting or running. Returns false if there still
  // is one at the deadline; only the end of the process can stop it then.
  [[nodiscard]] bool drain(std::chrono::steady_clock::time_point deadline);

  // The threads of all queues.
  WorkerPool& workers() { return workers_; }

  // Waits until the log is written; false if its reader has not read it by the deadline.
  [[nodiscard]] bool flushLog(std::chrono::steady_clock::time_point deadline);

  // Log lines that were dropped because they were not read in time, since the start.
  std::size_t droppedLogLines() const { return logWriter_->droppedCount(); }

  // From now on, a crash writes the pending lines before it ends the process, and an uncaught
  // exception is logged. For the process entry; see CrashHandler.
  void writeLogOnCrash();

  std::shared_ptr<platform::DispatchQueue> makeQueue(std::string label,
                                                     platform::DispatchQueueKind kind) override;
  std::shared_ptr<platform::DispatchTimer> makeTimer(
      std::shared_ptr<platform::DispatchQueue> queue) override;

  std::shared_ptr<platform::Log> makeLog(std::string subsystem, std::string category) override;
  platform::Log& defaultLog() override { return *defaultLog_; }
  void systemLog(std::string_view line) override;

  // Programs have no bundle on Linux.
  std::optional<std::string> mainBundleIdentifier() const override { return std::nullopt; }

  const platform::Clock& clock() const override { return clock_; }
  platform::UUIDSource& uuidSource() override { return uuids_; }
  const platform::TextServices& text() const override { return text_; }
  platform::SocketCalls& sockets() override { return sockets_; }

 private:
  const Options options_;
  const std::shared_ptr<BackgroundWriter> logWriter_;
  std::mutex logsLock_;
  // By subsystem and category: handles have no state, and every tunnel asks for one.
  std::map<std::pair<std::string, std::string>, std::weak_ptr<platform::Log>> logs_;
  const std::shared_ptr<platform::Log> defaultLog_;
  platform::POSIXClock clock_;
  RandomUUIDSource uuids_;
  platform::ICUTextServices text_;
  LinuxSocketCalls sockets_;
  // The last items of the pool may still release timers.
  TimerService timers_;
  WorkerPool workers_;
};

}  // namespace ostravel::linuxplatform
