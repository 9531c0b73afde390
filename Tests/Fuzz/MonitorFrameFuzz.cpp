// What anyone may send to the monitor's socket: the frame is the same however it is split, and its
// line is safe to print whatever it contains.

#include <string>
#include <variant>

#include "Companion/Events/FlowHistory.h"
#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Monitor/EventFrameReader.h"
#include "Companion/Monitor/EventLine.h"
#include "Tests/Fuzz/FuzzInput.h"
#include "Tests/Simulator/ProtocolModel.h"

namespace {

using ostravel::companion::EventFrameReader;
using ostravel::companion::FlowHistory;
using ostravel::companion::ReceivedEvent;
using ostravel::fuzz::FuzzInput;
using ostravel::fuzz::require;

void requireSafe(const std::string& line) {
  require(ostravel::simulator::isUTF8(line), "a line is UTF-8");
  for (const char byte : line) {
    require(static_cast<unsigned char>(byte) >= 0x20 && byte != 0x7F,
            "a line has no control characters");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::uint64_t sizes = input.number();
  const bool isWholeFrame = sizes % 2 == 0;
  std::string stream(input.rest());
  if (isWholeFrame) {
    // Otherwise a fuzzer spends its time on the length.
    const auto length = static_cast<std::uint32_t>(stream.size());
    std::string prefix;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
      prefix += static_cast<char>((length >> shift) & 0xFFU);
    }
    stream.insert(0, prefix);
  }

  EventFrameReader whole;
  whole.consume(stream);
  const auto state = whole.finish();
  EventFrameReader cut;
  ostravel::fuzz::inPieces(stream, sizes, [&cut](std::string_view piece) {
    return cut.consume(piece) != EventFrameReader::State::malformed;
  });
  require(cut.finish() == state, "the outcome depends on the pieces");
  if (state != EventFrameReader::State::complete) {
    require(state == EventFrameReader::State::malformed && !whole.problem().empty(),
            "a stream that ends early has a problem");
    return 0;
  }
  require(cut.body() == whole.body(), "the body depends on the pieces");
  const auto received = ostravel::companion::parseReceivedEvent(whole.body());
  if (const auto* const event = std::get_if<ReceivedEvent>(&received)) {
    FlowHistory flows;
    requireSafe(ostravel::companion::eventLine(*event, flows.apply(*event), {}));
    requireSafe(event->json);
  } else {
    require(!std::get<std::string>(received).empty(), "what is wrong has a name");
  }
  return 0;
}
