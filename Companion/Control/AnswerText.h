#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Companion/Shared/TimeText.h"

namespace ostravel::companion {

// Formats the extension's answers (Documentation/control.md) as text. Values that an application or
// a proxy could have chosen are made printable.

// Fits on one screen of 80 columns. The first line says whether new connections are proxied, and
// why not.
std::string statusText(const json_t* status);

struct FlowTextStyle {
  TimeStyle time = TimeStyle::timeOfDay;
  // The terminal's, in columns; 0: unlimited.
  std::size_t width = 0;
};

// One line, without its line feed.
std::string flowText(const json_t* flow, FlowTextStyle style = {});

// The rules, then their result.
std::string explanationText(const json_t* explanation);

// A member at a path of member names, such as "gate.last_probe.at". Null if there is none.
const json_t* memberOf(const json_t* object, std::string_view path);
std::int64_t integerOf(const json_t* object, std::string_view path);
std::optional<double> numberOf(const json_t* object, std::string_view path);
// The string at a path, made printable.
std::string textOf(const json_t* object, std::string_view path);

// 0 B, 12.3 KiB
std::string bytesText(double bytes);
// 90 µs, 3.2 ms, 4.5 s
std::string microsecondsText(double microseconds);
// 12 s, 4 min, 3 h, 2 d
std::string spanText(double seconds);

}  // namespace ostravel::companion
