#pragma once

#include <memory>
#include <string>

#include "Base/BackgroundWriter.h"
#include "Base/FileDescriptor.h"
#include "Base/LineOutput.h"
#include "Platform/Interface/Log.h"

namespace ostravel::linuxplatform {

// Passes lines for standard error to a background writer:
//
//   2026-11-21T11:05:01.123Z info    OstravelProxy: Provider started
//
// The time at which the line was logged, in UTC, then the level. Usable from any thread.
class StderrLog final : public platform::Log {
 public:
  // Writes the lines to a descriptor. A line that cannot be written is silently lost, except that a
  // closed pipe raises SIGPIPE, which the process ignores.
  class Output final : public BackgroundWriter::Output {
   public:
    // Uses a duplicate of the descriptor, which remains the caller's.
    explicit Output(int descriptor);

    std::size_t write(std::string_view lines) override;
    std::string dropped(std::size_t count) override;
    std::size_t writeInCrash(std::string_view lines) noexcept override;

   private:
    const FileDescriptor descriptor_;
    const LineOutput output_;
  };

  // The writer has an Output of this class. Lines below the least level are not written.
  explicit StderrLog(std::shared_ptr<BackgroundWriter> writer,
                     platform::LogLevel least = platform::LogLevel::info);

 protected:
  void write(platform::LogLevel level, std::string_view format,
             std::span<const platform::LogArgument> arguments) override;

 private:
  const std::shared_ptr<BackgroundWriter> writer_;
  const platform::LogLevel least_;
};

}  // namespace ostravel::linuxplatform
