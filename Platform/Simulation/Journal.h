#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ostravel::simulation {

// Records a run, one line per step: every operation and completion of flows and connections, and
// lines that the test adds.
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
  // Turned off for runs of millions of steps, which need no lines.
  void setEnabled(bool enabled) { enabled_ = enabled; }
  bool isEnabled() const { return enabled_; }

  void add(std::string line);
  void add(std::string_view name, std::string_view what);

  const std::vector<std::string>& lines() const { return lines_; }
  // The lines that contain the text.
  std::vector<std::string> linesWith(std::string_view text) const;
  // True if both lines exist and the first occurrence of one precedes that of the other.
  bool inOrder(std::string_view first, std::string_view second) const;
  void clear() { lines_.clear(); }

 private:
  bool enabled_ = true;
  std::vector<std::string> lines_;
};

}  // namespace ostravel::simulation
