#include "Extension/main/CheckReport.h"

#include <algorithm>
#include <utility>

#include "Base/PrintableText.h"

namespace ostravel::linuxplatform {

namespace {

using Level = CheckReport::Level;

const char* nameOf(Level level) {
  switch (level) {
    case Level::ok:
      return "ok";
    case Level::warning:
      return "warning";
    case Level::problem:
      break;
  }
  return "problem";
}

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(width, text.size()), ' ');
  return text;
}

std::string counted(std::size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace

void CheckReport::add(Level level, std::string subject, std::string finding) {
  lines_.push_back({level, std::move(subject), std::move(finding)});
}

std::size_t CheckReport::countOf(Level level) const {
  return static_cast<std::size_t>(std::ranges::count(lines_, level, &Line::level));
}

std::string CheckReport::text() const {
  constexpr std::size_t kLevelWidth = 9;
  std::size_t width = 0;
  for (const Line& line : lines_) {
    width = std::max(width, line.subject.size() + 2);
  }
  std::string text;
  for (const Line& line : lines_) {
    text += padded(nameOf(line.level), kLevelWidth) + padded(line.subject, width) +
            printableText(line.finding) + "\n";
  }
  return text + "\n" + counted(countOf(Level::problem), "problem") + ", " +
         counted(countOf(Level::warning), "warning") + "\n";
}

int CheckReport::exitStatus() const {
  if (countOf(Level::problem) > 0) {
    return 2;
  }
  return countOf(Level::warning) > 0 ? 1 : 0;
}

}  // namespace ostravel::linuxplatform
