#pragma once

#include <jansson.h>

#include <string>

#include "Companion/Shared/ControlClient.h"

namespace ostravel::companion {

// Exit statuses of ostravelctl besides that for wrong arguments, 2.
inline constexpr int kExitDone = 0;
// The request was rejected; for status: new connections go direct.
inline constexpr int kExitNo = 1;
// The extension could not be reached.
inline constexpr int kExitUnreachable = 3;

// The time until which an answer is awaited, from now on.
ControlClient::Deadline answerDeadline();

// False if the reader has closed the output.
bool printText(const std::string& text);
bool printLine(const std::string& line);

// Compact, on one line, safe for a terminal.
std::string jsonLine(const json_t* value);

// Prints one line on standard error; returns the exit status.
int report(const ControlClient::Failure& failure);

}  // namespace ostravel::companion
