#pragma once

#include <string>
#include <string_view>

#include "Tests/Simulator/HistoryEvent.h"

// The protocol between the proxy and the system, implemented a second time without the system's own
// classes, so that the two can be compared.
namespace ostravel::simulator {

// RFC 3629, strictly.
bool isUTF8(std::string_view text);

// Every byte of the request for this flow.
std::string expectedRequest(const OfferedFlow& flow, std::string_view flowId);

enum class Verdict { incomplete, established, rejected, invalid };

struct Judgement {
  Verdict verdict = Verdict::incomplete;
  // What belongs to the application, once established.
  std::string_view leftover = {};
};

// The outcome of an answer of which this much has arrived.
Judgement judgeAnswer(std::string_view received);

// The text of a member of a monitoring event in compact JSON, as it is written there; empty for an
// absent one. start: the key as it is written, with quotes and colon and the quote of the text.
// Only for members whose texts contain no quote.
std::string_view textMember(std::string_view json, std::string_view start);

}  // namespace ostravel::simulator
