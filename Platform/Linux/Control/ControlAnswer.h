#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Base/JSONHandle.h"
#include "Platform/Linux/Control/ControlRequest.h"
#include "Platform/Linux/Statistics/DurationHistogram.h"
#include "Platform/Linux/Statistics/FlowRecord.h"

namespace ostravel::linuxplatform {

// Answers of the control socket and their parts, as in Documentation/control.md.

// One line with its end. result: an object.
std::string answerLine(ControlRequest::Kind kind, JSONHandle result);
std::string errorLine(const ControlError& error, std::optional<ControlRequest::Kind> kind);

// A string; bytes that are not UTF-8 are written as escapes.
JSONHandle jsonText(std::string_view text);
JSONHandle jsonOf(const FlowRecord::View& flow);
JSONHandle jsonOf(const std::vector<FlowRecord::View>& flows);
JSONHandle jsonOf(const DurationHistogram::Snapshot& histogram);

}  // namespace ostravel::linuxplatform
