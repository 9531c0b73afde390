#include "Extension/main/CheckReport.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>

#include "Base/CountedText.h"
#include "Base/JSONHandle.h"
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

std::string CheckReport::json() const {
  const JSONHandle report(json_object());
  json_t* const findings = json_array();
  json_object_set_new(report.get(), "findings", findings);
  for (const Line& line : lines_) {
    json_t* const finding = json_object();
    json_object_set_new(finding, "level", json_string(nameOf(line.level)));
    json_object_set_new(finding, "subject", json_string(line.subject.c_str()));
    json_object_set_new(finding, "finding", json_string(printableText(line.finding).c_str()));
    json_array_append_new(findings, finding);
  }
  const auto setCount = [&report, this](const char* name, Level level) {
    json_object_set_new(report.get(), name, json_integer(static_cast<json_int_t>(countOf(level))));
  };
  setCount("problems", Level::problem);
  setCount("warnings", Level::warning);
  const std::unique_ptr<char, decltype(&std::free)> text(
      json_dumps(report.get(), JSON_COMPACT | JSON_PRESERVE_ORDER), &std::free);
  return text ? std::string(text.get()) + "\n" : std::string();
}

int CheckReport::exitStatus() const {
  if (countOf(Level::problem) > 0) {
    return 2;
  }
  return countOf(Level::warning) > 0 ? 1 : 0;
}

}  // namespace ostravel::linuxplatform
