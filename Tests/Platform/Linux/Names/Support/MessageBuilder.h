#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::testing {

inline constexpr std::uint16_t kTypeA = 1;
inline constexpr std::uint16_t kTypeCNAME = 5;
inline constexpr std::uint16_t kTypeAAAA = 28;

// A DNS message in wire format (RFC 1035, section 4), built piece by piece. Counts in the header
// follow what is added.
class MessageBuilder {
 public:
  explicit MessageBuilder(std::uint16_t id, std::uint16_t flags);

  MessageBuilder& question(std::string_view name, std::uint16_t type,
                           std::uint16_t recordClass = 1);
  MessageBuilder& address(std::string_view owner, const std::string& literal,
                          std::uint32_t timeToLive);
  MessageBuilder& alias(std::string_view owner, std::string_view target, std::uint32_t timeToLive);
  MessageBuilder& record(std::string_view owner, std::uint16_t type, std::uint32_t timeToLive,
                         const std::vector<std::byte>& data);

  std::vector<std::byte> bytes() const { return bytes_; }

  static std::vector<std::byte> encodeName(std::string_view name);

 private:
  void putWord(std::uint16_t word);
  void put(const std::vector<std::byte>& bytes);
  void count(std::size_t at);

  std::vector<std::byte> bytes_;
};

// A query for addresses, and an answer to it.
std::vector<std::byte> query(std::uint16_t id, std::string_view name, std::uint16_t type = kTypeA);
MessageBuilder answerTo(std::uint16_t id, std::string_view name, std::uint16_t type = kTypeA);

linuxplatform::SocketEndpoint addressOf(const std::string& literal, std::uint16_t port = 0);

}  // namespace ostravel::testing
