#include "Tests/Platform/Linux/Names/Support/MessageBuilder.h"

#include <algorithm>

namespace ostravel::testing {

using linuxplatform::AddressFamily;
using linuxplatform::SocketEndpoint;

MessageBuilder::MessageBuilder(std::uint16_t id, std::uint16_t flags) {
  putWord(id);
  putWord(flags);
  bytes_.resize(12);
}

void MessageBuilder::putWord(std::uint16_t word) {
  bytes_.push_back(static_cast<std::byte>(word >> 8U));
  bytes_.push_back(static_cast<std::byte>(word));
}

void MessageBuilder::put(const std::vector<std::byte>& bytes) {
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

void MessageBuilder::count(std::size_t at) {
  bytes_[at + 1] = static_cast<std::byte>(std::to_integer<unsigned>(bytes_[at + 1]) + 1);
}

std::vector<std::byte> MessageBuilder::encodeName(std::string_view name) {
  std::vector<std::byte> encoded;
  while (!name.empty()) {
    const std::string_view label = name.substr(0, name.find('.'));
    encoded.push_back(static_cast<std::byte>(label.size()));
    std::transform(label.begin(), label.end(), std::back_inserter(encoded),
                   [](char character) { return static_cast<std::byte>(character); });
    name.remove_prefix(std::min(name.size(), label.size() + 1));
  }
  encoded.push_back(std::byte{0});
  return encoded;
}

MessageBuilder& MessageBuilder::question(std::string_view name, std::uint16_t type,
                                         std::uint16_t recordClass) {
  count(4);
  put(encodeName(name));
  putWord(type);
  putWord(recordClass);
  return *this;
}

MessageBuilder& MessageBuilder::record(std::string_view owner, std::uint16_t type,
                                       std::uint32_t timeToLive,
                                       const std::vector<std::byte>& data) {
  count(6);
  put(encodeName(owner));
  putWord(type);
  putWord(1);
  putWord(static_cast<std::uint16_t>(timeToLive >> 16U));
  putWord(static_cast<std::uint16_t>(timeToLive));
  putWord(static_cast<std::uint16_t>(data.size()));
  put(data);
  return *this;
}

MessageBuilder& MessageBuilder::address(std::string_view owner, const std::string& literal,
                                        std::uint32_t timeToLive) {
  const SocketEndpoint endpoint = addressOf(literal);
  const bool isIPv4 = endpoint.family == AddressFamily::ipv4;
  std::vector<std::byte> data;
  std::transform(endpoint.address.begin(), endpoint.address.begin() + (isIPv4 ? 4 : 16),
                 std::back_inserter(data), [](auto byte) { return std::byte{byte}; });
  return record(owner, isIPv4 ? kTypeA : kTypeAAAA, timeToLive, data);
}

MessageBuilder& MessageBuilder::alias(std::string_view owner, std::string_view target,
                                      std::uint32_t timeToLive) {
  return record(owner, kTypeCNAME, timeToLive, encodeName(target));
}

std::vector<std::byte> query(std::uint16_t id, std::string_view name, std::uint16_t type) {
  constexpr std::uint16_t kRecursionDesired = 0x0100;
  return MessageBuilder(id, kRecursionDesired).question(name, type).bytes();
}

MessageBuilder answerTo(std::uint16_t id, std::string_view name, std::uint16_t type) {
  constexpr std::uint16_t kAnswer = 0x8180;
  return MessageBuilder(id, kAnswer).question(name, type);
}

SocketEndpoint addressOf(const std::string& literal, std::uint16_t port) {
  SocketEndpoint endpoint = SocketEndpoint::atAddress(literal).value();
  endpoint.port = port;
  return endpoint;
}

}  // namespace ostravel::testing
