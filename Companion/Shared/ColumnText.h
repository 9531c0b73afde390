#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ostravel::companion {

// Lines of columns for a terminal. Every code point counts as one column, also invalid bytes:
// identifiers and destinations are mostly ASCII.

// Wide enough for most applications and destinations, so that the columns stay aligned.
inline constexpr std::size_t kApplicationWidth = 26;
inline constexpr std::size_t kDestinationWidth = 22;
// Narrower terminals show applications by their last path component, and times of day without the
// thousandths.
inline constexpr std::size_t kWideTerminal = 120;
inline constexpr std::size_t kShortTimeWidth = 8;

std::size_t columnsOf(std::string_view text);

// With blanks at the end, up to the width; longer texts are unchanged.
std::string padded(std::string text, std::size_t width);
std::string withoutTrailingBlanks(std::string line);

std::string_view firstColumns(std::string_view text, std::size_t columns);

// At most as many columns; an ellipsis replaces what is cut off. The second keeps the end, which
// contains a destination's port and domain.
std::string cutAtEnd(std::string_view text, std::size_t width);
std::string cutAtBeginning(std::string_view text, std::size_t width);

std::string_view lastPathComponent(std::string_view path);

// The width of an application's column if application and destination share so much room, with a
// blank between them.
std::size_t applicationWidthIn(std::size_t room);

// The terminal's current width in columns; 0 if the standard output is no terminal.
std::size_t widthOfOutput();

}  // namespace ostravel::companion
