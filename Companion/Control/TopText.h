#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Companion/Control/TopHistory.h"

namespace ostravel::companion {

// The live screen as lines of text, for any size of at least 20 columns.
class TopText {
 public:
  // hasBlocks: the terminal displays UTF-8, so that graphs can use the block elements of Unicode.
  explicit TopText(bool hasBlocks) : hasBlocks_(hasBlocks) {}

  // At most `height` lines, each at most `width` columns wide.
  std::vector<std::string> lines(const TopHistory& history, std::size_t width,
                                 std::size_t height) const;

  // The latest values as one line of bars, relative to the largest.
  std::string graph(const std::vector<double>& values) const;

 private:
  bool hasBlocks_;
};

}  // namespace ostravel::companion
