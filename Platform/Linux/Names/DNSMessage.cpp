#include "Platform/Linux/Names/DNSMessage.h"

#include <ares.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace ostravel::linuxplatform {

namespace {

// RFC 1035, section 4.1.1.
constexpr std::uint16_t kIsAnswer = 0x8000;
constexpr std::uint16_t kOpcodeTruncatedAndResult = 0x7A0F;
constexpr std::uint16_t kOpcode = 0x7800;

constexpr std::uint16_t kClassInternet = 1;
constexpr std::uint16_t kTypeA = 1;
constexpr std::uint16_t kTypeCNAME = 5;
constexpr std::uint16_t kTypeAAAA = 28;

// A name has at most 253 characters (RFC 1035, section 2.3.4).
constexpr std::size_t kLongestName = 253;
// More than content networks use; each costs the expansion of one or two names.
constexpr unsigned kMaximumRecords = 64;
constexpr unsigned kMaximumAliases = 16;

char lowerCase(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                              : character;
}

// Reads a message from front to back. Missing or damaged data makes every later read fail.
//
// Names are expanded by c-ares, which bounds their compression pointers. Its parsers of whole
// answers do not report which name an address belongs to, and libraries that parse every type of
// record expose more code than necessary to untrusted input.
class Reader {
 public:
  explicit Reader(std::span<const std::byte> message) : message_(message) {}

  bool hasFailed() const { return hasFailed_; }
  std::size_t position() const { return position_; }

  std::uint16_t word() {
    const auto bytes = take(2);
    return bytes.empty() ? std::uint16_t{0}
                         : static_cast<std::uint16_t>(std::to_integer<unsigned>(bytes[0]) << 8U |
                                                      std::to_integer<unsigned>(bytes[1]));
  }

  std::uint32_t longWord() {
    const std::uint32_t high = word();
    return high << 16U | word();
  }

  // Empty if fewer bytes are left, or if size is 0.
  std::span<const std::byte> take(std::size_t size) {
    if (hasFailed_ || message_.size() - position_ < size) {
      hasFailed_ = true;
      return {};
    }
    position_ += size;
    return message_.subspan(position_ - size, size);
  }

  // In lower case, without a final dot.
  std::string name() {
    if (hasFailed_ || position_ >= message_.size()) {
      hasFailed_ = true;
      return {};
    }
    const auto* const start = reinterpret_cast<const unsigned char*>(message_.data());
    char* expanded = nullptr;
    long size = 0;
    if (::ares_expand_name(start + position_, start, static_cast<int>(message_.size()), &expanded,
                           &size) != ARES_SUCCESS) {
      hasFailed_ = true;
      return {};
    }
    const std::unique_ptr<char, decltype(&::ares_free_string)> owner(expanded, &::ares_free_string);
    take(static_cast<std::size_t>(size));
    std::string name(expanded);
    std::transform(name.begin(), name.end(), name.begin(), &lowerCase);
    return name;
  }

 private:
  const std::span<const std::byte> message_;
  std::size_t position_ = 0;
  bool hasFailed_ = false;
};

struct Header {
  std::uint16_t id = 0;
  std::uint16_t flags = 0;
  std::uint16_t questions = 0;
  std::uint16_t answers = 0;
};

std::optional<Header> readHeader(Reader& reader) {
  Header header{reader.word(), reader.word(), reader.word(), reader.word()};
  // Skip the numbers of further records.
  reader.longWord();
  return reader.hasFailed() ? std::nullopt : std::optional(header);
}

std::optional<AddressFamily> familyOf(std::uint16_t type) {
  if (type == kTypeA) {
    return AddressFamily::ipv4;
  }
  return type == kTypeAAAA ? std::optional(AddressFamily::ipv6) : std::nullopt;
}

// Empty for any other type or class.
std::optional<DNSQuestion> readQuestion(Reader& reader, std::uint16_t id) {
  std::string name = reader.name();
  const auto family = familyOf(reader.word());
  const bool isInternet = reader.word() == kClassInternet;
  if (reader.hasFailed() || !family || !isInternet) {
    return std::nullopt;
  }
  return DNSQuestion{id, std::move(name), *family};
}

struct Record {
  std::string owner;
  std::chrono::seconds timeToLive{};
  // One of the two; neither for a record of another type.
  std::string alias;
  std::optional<SocketEndpoint> address;
};

std::optional<SocketEndpoint> readAddress(Reader& reader, std::uint16_t type, std::size_t size) {
  const auto family = familyOf(type);
  const std::size_t expected = family == AddressFamily::ipv4 ? 4 : 16;
  const auto bytes = reader.take(size);
  if (!family || bytes.size() != expected) {
    return std::nullopt;
  }
  SocketEndpoint endpoint;
  endpoint.family = *family;
  std::transform(bytes.begin(), bytes.end(), endpoint.address.begin(),
                 [](std::byte byte) { return std::to_integer<std::uint8_t>(byte); });
  return endpoint;
}

Record readRecord(Reader& reader) {
  Record record;
  record.owner = reader.name();
  const std::uint16_t type = reader.word();
  const std::uint16_t recordClass = reader.word();
  // The uppermost bit is not used (RFC 2181, section 8).
  const std::uint32_t timeToLive = reader.longWord();
  record.timeToLive = std::chrono::seconds(timeToLive >> 31U == 0 ? timeToLive : 0);
  const std::size_t size = reader.word();
  if (recordClass == kClassInternet && type == kTypeCNAME) {
    const std::size_t begin = reader.position();
    std::string alias = reader.name();
    record.alias = reader.position() == begin + size ? std::move(alias) : std::string();
    if (record.alias.empty()) {
      // The following record cannot be located.
      reader.take(kLongestDNSMessage + 1);
    }
  } else {
    record.address = readAddress(reader, recordClass == kClassInternet ? type : 0, size);
  }
  return record;
}

// Follows the aliases from the name; a message may list them in any order.
std::vector<ResolvedAddress> addressesOf(std::string_view name, AddressFamily family,
                                         const std::vector<Record>& records) {
  std::vector<ResolvedAddress> addresses;
  auto shortest = std::chrono::seconds::max();
  for (unsigned count = 0; count < kMaximumAliases; ++count) {
    const Record* alias = nullptr;
    for (const Record& record : records) {
      if (record.owner != name) {
        continue;
      }
      if (record.address && record.address->family == family) {
        addresses.push_back({*record.address, std::min(shortest, record.timeToLive)});
      } else if (!record.alias.empty()) {
        alias = &record;
      }
    }
    if (!addresses.empty() || alias == nullptr) {
      return addresses;
    }
    shortest = std::min(shortest, alias->timeToLive);
    name = alias->alias;
  }
  return addresses;
}

bool isLabelCharacter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= '0' && character <= '9') ||
         character == '-' || character == '_';
}

}  // namespace

std::optional<DNSQuestion> parseDNSQuestion(std::span<const std::byte> message) {
  if (message.size() > kLongestDNSMessage) {
    return std::nullopt;
  }
  Reader reader(message);
  const auto header = readHeader(reader);
  if (!header || (header->flags & (kIsAnswer | kOpcode)) != 0 || header->questions != 1 ||
      header->answers != 0) {
    return std::nullopt;
  }
  auto question = readQuestion(reader, header->id);
  return question && isUsableHostName(question->name) ? question : std::nullopt;
}

std::optional<std::uint16_t> idOfDNSAnswer(std::span<const std::byte> message) {
  if (message.size() > kLongestDNSMessage) {
    return std::nullopt;
  }
  Reader reader(message);
  const auto header = readHeader(reader);
  if (!header || (header->flags & kIsAnswer) == 0 ||
      (header->flags & kOpcodeTruncatedAndResult) != 0 || header->questions != 1 ||
      header->answers == 0) {
    return std::nullopt;
  }
  return header->id;
}

std::vector<ResolvedAddress> parseDNSAnswer(std::span<const std::byte> message,
                                            const DNSQuestion& question) {
  if (idOfDNSAnswer(message) != question.id) {
    return {};
  }
  Reader reader(message);
  const auto header = readHeader(reader);
  if (!header || readQuestion(reader, header->id) != question) {
    return {};
  }
  std::vector<Record> records;
  const unsigned count = std::min<unsigned>(header->answers, kMaximumRecords);
  while (records.size() < count) {
    records.push_back(readRecord(reader));
    if (reader.hasFailed()) {
      return {};
    }
  }
  return addressesOf(question.name, question.family, records);
}

std::optional<ResolvedAddress> parseDNSRecord(std::span<const std::byte> message) {
  if (message.size() > kLongestDNSMessage) {
    return std::nullopt;
  }
  Reader reader(message);
  const Record record = readRecord(reader);
  if (reader.hasFailed() || !record.address) {
    return std::nullopt;
  }
  return ResolvedAddress{*record.address, record.timeToLive};
}

bool isUsableHostName(std::string_view name) {
  constexpr std::size_t kLongestLabel = 63;
  constexpr std::string_view kThisMachine = "localhost";
  if (name.empty() || name.size() > kLongestName) {
    return false;
  }
  const std::size_t lastDot = name.rfind('.');
  const std::string_view lastLabel =
      lastDot == std::string_view::npos ? name : name.substr(lastDot + 1);
  // "localhost" and the names below it (RFC 6761, section 6.3).
  if (lastLabel == kThisMachine) {
    return false;
  }
  // A name that ends in a number may be read as an IPv4 address.
  if (std::all_of(lastLabel.begin(), lastLabel.end(),
                  [](char character) { return character >= '0' && character <= '9'; }) ||
      lastLabel.starts_with("0x")) {
    return false;
  }
  std::size_t size = 0;
  for (const char character : name) {
    if (character == '.') {
      if (size == 0) {
        return false;
      }
      size = 0;
    } else if (!isLabelCharacter(character) || ++size > kLongestLabel) {
      return false;
    }
  }
  return size > 0;
}

}  // namespace ostravel::linuxplatform
