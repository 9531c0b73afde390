// A DNS message from any server or application: whatever it contains, nothing beyond its end is
// read, and what is learned are addresses of the right family for a possible host name.

#include <array>
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <vector>

#include "Platform/Linux/Names/DNSMessage.h"
#include "Tests/Fuzz/FuzzInput.h"

namespace {

// RFC 1035, section 4.1.1.
constexpr std::size_t kHeaderSize = 12;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ostravel::linuxplatform;
  using ostravel::fuzz::require;

  // On the heap and exactly as large, so that a sanitizer sees every byte too many.
  const auto* const bytes = reinterpret_cast<const std::byte*>(data);
  std::vector<std::byte> message(bytes, bytes + size);
  static_cast<void>(parseDNSRecord(message));
  if (size < kHeaderSize) {
    require(!parseDNSQuestion(message), "a header is complete");
    return 0;
  }

  // The query to which it would be an answer: without the flags and the number of answers.
  const std::array flagsAndAnswers{message[2], message[3], message[6], message[7]};
  message[2] = message[3] = message[6] = message[7] = std::byte{0};
  const auto question = parseDNSQuestion(message);
  std::tie(message[2], message[3], message[6], message[7]) = std::tuple_cat(flagsAndAnswers);
  if (!question) {
    return 0;
  }
  require(isUsableHostName(question->name), "a question is for the name of a host");
  const auto addresses = parseDNSAnswer(message, *question);
  for (const ResolvedAddress& resolved : addresses) {
    require(resolved.address.family == question->family, "an address is of the family asked for");
    require(resolved.timeToLive.count() >= 0, "no time to live is negative");
  }
  if (addresses.empty()) {
    return 0;
  }
  require(idOfDNSAnswer(message) == question->id, "an answer has the number of its question");
  // A different place for each message; trying all of them would take most of a fuzzer's time.
  const std::size_t kept = size - 1 - question->id % 16U % size;
  const std::vector<std::byte> shorter(bytes, bytes + kept);
  const auto left = parseDNSAnswer(shorter, *question);
  require(left.empty() || left == addresses, "a truncated answer teaches nothing new");
  return 0;
}
