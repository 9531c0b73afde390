#pragma once

#include <string>
#include <vector>

namespace ostravel::linuxplatform {

// The findings of a check of the machine as text: one line each in a table, and a summary.
class CheckReport {
 public:
  enum class Level {
    ok,
    // The extension runs, but with losses.
    warning,
    // The extension does not run, or has no effect.
    problem,
  };

  // subject: a few words. finding: one sentence, including what to do. May be called several times
  // for a subject.
  void add(Level level, std::string subject, std::string finding);

  std::string text() const;
  // One line: an object with the array "findings", each with "level", "subject" and "finding", and
  // the numbers "problems" and "warnings".
  std::string json() const;

  // 0 if all is well, 1 after a warning, 2 after a problem.
  int exitStatus() const;

 private:
  struct Line {
    Level level;
    std::string subject;
    std::string finding;
  };

  std::size_t countOf(Level level) const;

  std::vector<Line> lines_;
};

}  // namespace ostravel::linuxplatform
