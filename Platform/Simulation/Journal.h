#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ostravel::simulation {

// What happened in a run, in order, one line each: flows and connections write down every operation
// and every completion, tests whatever they want to see in between.
//
//   NAME: open | opened | open failed: DESCRIPTION
//   NAME: read | read N bytes | read end | read failed: DESCRIPTION
//   NAME: write N bytes | written | write failed: DESCRIPTION
//   NAME: closeRead | closeWrite | closeRead: DESCRIPTION | closeWrite: DESCRIPTION
//   NAME: cancel | state STATE | destroyed
//
// where NAME is the flow's or the connection's, such as "flow 1" or "connection 1".
class Journal {
 public:
  // A run of millions of steps has no use for lines; without them nothing is kept.
  void setEnabled(bool enabled) { enabled_ = enabled; }
  bool isEnabled() const { return enabled_; }

  void add(std::string line);
  void add(std::string_view name, std::string_view what);

  const std::vector<std::string>& lines() const { return lines_; }
  // The lines that contain the text.
  std::vector<std::string> linesWith(std::string_view text) const;
  // Whether both lines are there, the first occurrence of one before that of the other.
  bool inOrder(std::string_view first, std::string_view second) const;
  void clear() { lines_.clear(); }

 private:
  bool enabled_ = true;
  std::vector<std::string> lines_;
};

}  // namespace ostravel::simulation
