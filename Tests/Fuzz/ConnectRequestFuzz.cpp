// What a client may send to the sidecar: the request is the same however it is split, and only
// well-formed targets are accepted.

#include <algorithm>
#include <cstring>
#include <string>
#include <variant>

#include "Companion/Sidecar/ConnectRequest.h"
#include "Companion/Sidecar/RequestHeader.h"
#include "Tests/Fuzz/FuzzInput.h"

namespace {

using ostravel::companion::ConnectRequest;
using ostravel::companion::RequestHeader;
using ostravel::fuzz::FuzzInput;
using ostravel::fuzz::require;

// Feeds as much as there is room for.
RequestHeader::State feed(RequestHeader& header, std::string_view piece) {
  auto state = RequestHeader::State::incomplete;
  while (!piece.empty() && state == RequestHeader::State::incomplete) {
    const auto space = header.space();
    require(!space.empty(), "there is room while the header is incomplete");
    const auto size = std::min(space.size(), piece.size());
    std::memcpy(space.data(), piece.data(), size);
    state = header.commit(size);
    piece.remove_prefix(size);
  }
  return state;
}

bool hasLineEnd(const std::string& text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::uint64_t sizes = input.number();
  const std::string_view stream = input.rest();

  RequestHeader whole;
  const auto state = feed(whole, stream);
  RequestHeader cut;
  auto last = RequestHeader::State::incomplete;
  ostravel::fuzz::inPieces(stream, sizes, [&](std::string_view piece) {
    last = feed(cut, piece);
    return last == RequestHeader::State::incomplete;
  });
  require(last == state, "the outcome depends on the pieces");
  if (state != RequestHeader::State::complete) {
    return 0;
  }
  require(cut.header() == whole.header(), "the header depends on the pieces");
  require(whole.remainder().starts_with(cut.remainder()), "what follows depends on the pieces");

  const auto parsed = ostravel::companion::parseConnectRequest(whole.header());
  if (const auto* const request = std::get_if<ConnectRequest>(&parsed)) {
    require(!hasLineEnd(request->appId) && !hasLineEnd(request->flowId),
            "an identifier fits on one line");
    const auto target = ostravel::companion::parseHostPort(toString(request->target));
    require(target && target->host == request->target.host && target->port == request->target.port,
            "a target can be written and read again");
  }
  return 0;
}
