#include "Tests/Simulator/ProtocolModel.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>

namespace ostravel::simulator {

namespace {

constexpr std::size_t kLargestHeader = 16384;

struct Character {
  char32_t value;
  std::size_t size;
};

std::optional<Character> firstCharacter(std::string_view text) {
  const auto byte = [text](std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
  };
  const unsigned lead = byte(0);
  if (lead < 0x80) {
    return Character{lead, 1};
  }
  const std::size_t size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  constexpr std::array<char32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  if (lead < 0xC2 || lead > 0xF4) {
    return std::nullopt;
  }
  char32_t value = lead & (0x7FU >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xC0U) != 0x80U) {
      return std::nullopt;
    }
    value = (value << 6U) | (byte(i) & 0x3FU);
  }
  const bool isSurrogate = value >= 0xD800 && value <= 0xDFFF;
  if (value < kSmallest[size] || value > 0x10FFFF || isSurrogate) {
    return std::nullopt;
  }
  return Character{value, size};
}

bool isWhiteSpace(char32_t value) {
  constexpr std::array<char32_t, 9> kSingle = {0x20,   0x85,   0xA0,   0x1680, 0x2028,
                                               0x2029, 0x202F, 0x205F, 0x3000};
  return (value >= 0x09 && value <= 0x0D) || (value >= 0x2000 && value <= 0x200A) ||
         std::find(kSingle.begin(), kSingle.end(), value) != kSingle.end();
}

// The text is UTF-8.
std::string_view trimmed(std::string_view text) {
  std::size_t begin = text.size();
  std::size_t end = 0;
  for (std::size_t at = 0; at < text.size();) {
    const auto character = firstCharacter(text.substr(at)).value_or(Character{0, 1});
    if (!isWhiteSpace(character.value)) {
      begin = std::min(begin, at);
      end = at + character.size;
    }
    at += character.size;
  }
  return begin < end ? text.substr(begin, end - begin) : std::string_view();
}

std::string withoutLineEnds(std::string text) {
  std::erase_if(text, [](char byte) { return byte == '\r' || byte == '\n'; });
  return text;
}

}  // namespace

bool isUTF8(std::string_view text) {
  while (!text.empty()) {
    const auto character = firstCharacter(text);
    if (!character) {
      return false;
    }
    text.remove_prefix(character->size);
  }
  return true;
}

std::string expectedRequest(const OfferedFlow& flow, std::string_view flowId) {
  std::string target;
  if (flow.hasEndpoint) {
    const bool isIPv6 = flow.host.find(':') != std::string::npos;
    target = (isIPv6 ? "[" + flow.host + "]" : flow.host) + ":" + flow.port;
  }
  std::string request;
  request.reserve(256);
  request.append("CONNECT ").append(target).append(" HTTP/1.1\r\nHost: ").append(target);
  request.append("\r\nX-Ostravel-App-Id: ").append(withoutLineEnds(flow.identifier));
  request.append("\r\nX-Ostravel-Flow-Id: ").append(flowId).append("\r\n\r\n");
  return request;
}

Judgement judgeAnswer(std::string_view received) {
  const auto end = received.find("\r\n\r\n");
  if (end == std::string_view::npos) {
    return {received.size() > kLargestHeader ? Verdict::invalid : Verdict::incomplete};
  }
  const auto header = received.substr(0, end);
  if (!isUTF8(header)) {
    return {Verdict::invalid};
  }
  const auto line = trimmed(header.substr(0, header.find("\r\n")));
  if (line.empty()) {
    return {Verdict::invalid};
  }
  const auto start = line.substr(0, 12);
  if (start != "HTTP/1.1 200" && start != "HTTP/1.0 200") {
    return {Verdict::rejected};
  }
  return {Verdict::established, received.substr(end + 4)};
}

std::string_view textMember(std::string_view json, std::string_view start) {
  const auto at = json.find(start);
  if (at == std::string_view::npos) {
    return {};
  }
  const auto text = json.substr(at + start.size());
  return text.substr(0, text.find('"'));
}

}  // namespace ostravel::simulator
