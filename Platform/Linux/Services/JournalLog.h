#pragma once

#include <memory>
#include <string>

#include "Base/BackgroundWriter.h"
#include "Platform/Interface/Log.h"

namespace ostravel::linuxplatform {

// Passes lines for the systemd journal to a background writer, with these fields besides the usual
// ones:
//
//   OSTRAVEL_SUBSYSTEM, OSTRAVEL_CATEGORY    of the handle
//   MESSAGE_ID                               what kind of line it is; see LogCatalogue
//   OSTRAVEL_FLOW_ID, OSTRAVEL_CODE          the flow that it is about, and the event's code
//   APPLICATION                              the flow's application
//
// A field that does not apply is absent. Usable from any thread.
class JournalLog final : public platform::Log {
 public:
  // True if a journal accepts records at the moment.
  static bool isThere();

  // Sends records to the journal. A record consists of its fields, each NAME=value and a line feed,
  // and an empty line. Without a journal, records are silently lost.
  class Output final : public BackgroundWriter::Output {
   public:
    // The fields are for the record that reports how many lines were dropped.
    Output(const std::string& subsystem, const std::string& category);

    std::size_t write(std::string_view records) override;
    std::string dropped(std::size_t count) override;
    std::size_t writeInCrash(std::string_view records) noexcept override;

   private:
    const std::string originFields_;
  };

  // The writer has an Output of this class. Lines below the least level are not written.
  JournalLog(std::shared_ptr<BackgroundWriter> writer, const std::string& subsystem,
             const std::string& category, platform::LogLevel least = platform::LogLevel::debug);

 protected:
  void write(platform::LogLevel level, std::string_view format,
             std::span<const platform::LogArgument> arguments) override;
  void writeAbout(const platform::LogFields& fields, platform::LogLevel level,
                  std::string_view format,
                  std::span<const platform::LogArgument> arguments) override;

 private:
  const std::shared_ptr<BackgroundWriter> writer_;
  // Complete fields, as in a record.
  const std::string originFields_;
  const platform::LogLevel least_;
};

}  // namespace ostravel::linuxplatform
