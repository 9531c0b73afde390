// A DNS message as any server or application sends it: whatever it contains, only what is there is
// read, and it teaches addresses of the right family for a name that can be a host's.

#include <span>
#include <vector>

#include "Platform/Linux/Names/DNSMessage.h"
#include "Tests/Fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ostravel::linuxplatform;
  using ostravel::fuzz::require;

  // On the heap and exactly as large, so that a sanitizer sees every byte too many.
  const auto* const bytes = reinterpret_cast<const std::byte*>(data);
  const std::vector<std::byte> message(bytes, bytes + size);
  static_cast<void>(parseDNSRecord(message));

  // The query to which it would be an answer: without the flags and the number of answers.
  std::vector<std::byte> asked = message;
  for (const std::size_t position : {2U, 3U, 6U, 7U}) {
    if (position < asked.size()) {
      asked[position] = std::byte{0};
    }
  }
  const auto question = parseDNSQuestion(asked);
  if (!question) {
    return 0;
  }
  require(isUsableHostName(question->name), "a question is for the name of a host");
  const auto addresses = parseDNSAnswer(message, *question);
  require(addresses.empty() || idOfDNSAnswer(message) == question->id,
          "an answer has the number of its question");
  for (const ResolvedAddress& resolved : addresses) {
    require(resolved.address.family == question->family, "an address is of the family asked for");
    require(resolved.timeToLive.count() >= 0, "no time to live is negative");
  }
  std::vector<std::byte> shorter = message;
  for (int count = 0; count < 16 && !shorter.empty(); ++count) {
    shorter.pop_back();
    const auto left = parseDNSAnswer(shorter, *question);
    require(left.empty() || left == addresses, "a truncated answer teaches nothing new");
  }
  return 0;
}
