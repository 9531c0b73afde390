#include "Platform/Simulation/Journal.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace ostravel::simulation {

void Journal::add(std::string line) {
  if (enabled_) {
    lines_.push_back(std::move(line));
  }
}

void Journal::add(std::string_view name, std::string_view what) {
  if (enabled_) {
    std::string line(name);
    line += ": ";
    line += what;
    lines_.push_back(std::move(line));
  }
}

std::vector<std::string> Journal::linesWith(std::string_view text) const {
  std::vector<std::string> found;
  std::copy_if(lines_.begin(), lines_.end(), std::back_inserter(found),
               [text](const std::string& line) { return line.find(text) != std::string::npos; });
  return found;
}

bool Journal::inOrder(std::string_view first, std::string_view second) const {
  const auto at = std::find(lines_.begin(), lines_.end(), first);
  const auto other = std::find(lines_.begin(), lines_.end(), second);
  return at < other && other != lines_.end();
}

}  // namespace ostravel::simulation
