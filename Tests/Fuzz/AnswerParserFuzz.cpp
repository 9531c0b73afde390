// The proxy's answer to CONNECT: the outcome is the model's, however the answer is split.

#include <span>
#include <string>
#include <variant>

#include "Extension/ProxyTunnelCore/ProxyConnectResponseParser.h"
#include "Platform/Shared/ICUTextServices.h"
#include "Tests/Fuzz/FuzzInput.h"
#include "Tests/Simulator/ProtocolModel.h"

namespace {

using ostravel::ProxyConnectResponseOutcome;
using ostravel::ProxyConnectResponseParser;
using ostravel::fuzz::FuzzInput;
using ostravel::fuzz::require;
using ostravel::simulator::Verdict;
namespace connect_response = ostravel::connect_response;

constexpr std::int64_t kMaxHeaderBytes = 16384;

std::span<const std::byte> bytesOf(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

Verdict verdictOf(const ProxyConnectResponseOutcome& outcome) {
  if (std::holds_alternative<connect_response::Established>(outcome)) {
    return Verdict::established;
  }
  if (std::holds_alternative<connect_response::Rejected>(outcome)) {
    return Verdict::rejected;
  }
  return std::holds_alternative<connect_response::Invalid>(outcome) ? Verdict::invalid
                                                                    : Verdict::incomplete;
}

std::string leftoverOf(const ProxyConnectResponseOutcome& outcome) {
  const auto* const established = std::get_if<connect_response::Established>(&outcome);
  if (established == nullptr) {
    return {};
  }
  return {reinterpret_cast<const char*>(established->leftover.data()),
          established->leftover.size()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ostravel::platform::ICUTextServices text;
  FuzzInput input(data, size);
  const std::uint64_t sizes = input.number();
  const std::string_view answer = input.rest();

  ProxyConnectResponseParser whole(kMaxHeaderBytes, text);
  const auto outcome = whole.append(bytesOf(answer));
  const auto judgement = ostravel::simulator::judgeAnswer(answer);
  require(verdictOf(outcome) == judgement.verdict, "the parser and the model disagree");
  require(leftoverOf(outcome) == judgement.leftover, "the leftover is another one");

  ProxyConnectResponseParser cut(kMaxHeaderBytes, text);
  ProxyConnectResponseOutcome last = connect_response::NeedMoreData{};
  std::size_t taken = 0;
  ostravel::fuzz::inPieces(answer, sizes, [&](std::string_view piece) {
    last = cut.append(bytesOf(piece));
    taken += piece.size();
    return verdictOf(last) == Verdict::incomplete;
  });
  // Only a header that is too long may be refused sooner when it comes in pieces.
  if (taken <= kMaxHeaderBytes) {
    require(verdictOf(last) == verdictOf(outcome), "the outcome depends on the pieces");
    require(
        leftoverOf(last) + std::string(answer.substr(taken)) ==
            leftoverOf(outcome) +
                (verdictOf(last) == Verdict::established ? "" : std::string(answer.substr(taken))),
        "the leftover depends on the pieces");
  }
  return 0;
}
