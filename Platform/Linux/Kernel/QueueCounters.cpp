#include "Platform/Linux/Kernel/QueueCounters.h"

#include <fstream>
#include <sstream>
#include <string>

namespace ostravel::linuxplatform {

std::optional<QueueCounters> QueueCounters::read(std::uint16_t queue) {
  // Under /proc/self: a sandboxed service may see nothing else of /proc.
  std::ifstream file("/proc/self/net/netfilter/nfnetlink_queue");
  std::ostringstream text;
  text << file.rdbuf();
  return file ? parse(text.str(), queue) : std::nullopt;
}

// Columns: number, reader, waiting, copy mode, copy range, dropped, dropped for the reader, next
// identifier, 1.
std::optional<QueueCounters> QueueCounters::parse(std::string_view text, std::uint16_t queue) {
  std::istringstream lines{std::string(text)};
  // A line without an end is incomplete: its numbers may be as well.
  for (std::string line; std::getline(lines, line) && !lines.eof();) {
    std::istringstream columns(line);
    std::uint64_t number = 0;
    std::uint64_t ignored = 0;
    QueueCounters counters;
    columns >> number >> ignored >> counters.waiting >> ignored >> ignored >> counters.dropped >>
        counters.userDropped;
    // A stream takes a negative number for a large one.
    const bool isWhole = columns && line.find('-') == std::string::npos;
    if (isWhole && number == queue) {
      return counters;
    }
  }
  return std::nullopt;
}

}  // namespace ostravel::linuxplatform
