#include "Companion/Fleet/FleetMessage.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <utility>

namespace ostravel::companion {
namespace {

constexpr std::size_t kLongestName = 253;

bool isPlain(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || character == '.' || character == '-' ||
         character == '_';
}

std::string subjectToken(std::string name) {
  std::replace(name.begin(), name.end(), '.', '_');
  return name;
}

// Removes the text up to the next space from the line, and returns it.
std::string_view takeWord(std::string_view& line) {
  const std::size_t end = std::min(line.find(' '), line.size());
  const std::string_view word = line.substr(0, end);
  line.remove_prefix(std::min(end + 1, line.size()));
  return word;
}

}  // namespace

bool isPlainName(std::string_view text) {
  return !text.empty() && text.size() <= kLongestName &&
         std::all_of(text.begin(), text.end(), isPlain);
}

std::string plainName(std::string_view text) {
  std::string name(text.substr(0, kLongestName));
  std::replace_if(
      name.begin(), name.end(), [](char character) { return !isPlain(character); }, '_');
  return name.empty() ? "-" : name;
}

std::string nameOfThisHost() {
  std::array<char, 256> name{};
  // One byte stays zero, because a longer name is truncated without a terminator.
  ::gethostname(name.data(), name.size() - 1);
  return plainName(name.data());
}

std::string thisBoot() {
  std::string boot;
  std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), boot);
  return plainName(boot);
}

std::string fleetSubject(const FleetMessage& message) {
  return "ostravel.events." + subjectToken(message.host) + "." + subjectToken(message.bootId);
}

bool isFleetSubject(std::string_view subject, const FleetMessage& message) {
  return isPlainName(message.host) && isPlainName(message.bootId) &&
         subject == fleetSubject(message);
}

std::string encodeRecord(const FleetMessage& message) {
  return message.host + " " + message.bootId + " " + message.id + "\n" + message.json;
}

std::optional<FleetMessage> decodeRecord(std::string_view record) {
  const std::size_t end = record.find('\n');
  if (end == std::string_view::npos) {
    return std::nullopt;
  }
  std::string_view line = record.substr(0, end);
  FleetMessage message;
  message.host = takeWord(line);
  message.bootId = takeWord(line);
  message.id = line;
  message.json = record.substr(end + 1);
  const bool isWhole =
      isPlainName(message.host) && isPlainName(message.bootId) && isPlainName(message.id);
  return isWhole ? std::optional(std::move(message)) : std::nullopt;
}

}  // namespace ostravel::companion
