#pragma once

#include <jansson.h>

#include <string>

#include "Companion/Shared/ControlClient.h"

namespace ostravel::companion {

// Exit statuses of ostravelctl besides that for wrong arguments, 2.
inline constexpr int kExitDone = 0;
// The request was not carried out; for status: new connections go direct.
inline constexpr int kExitNo = 1;
// The extension could not be asked.
inline constexpr int kExitUnreachable = 3;

// When to give up waiting for an answer.
ControlClient::Deadline answerDeadline();

// False when the reader has gone away.
bool printText(const std::string& text);
bool printLine(const std::string& line);

// On one line, safe for a terminal.
std::string jsonLine(const json_t* value);

// One line on standard error; returns the exit status.
int report(const ControlClient::Failure& failure);

}  // namespace ostravel::companion
