#include "Platform/Linux/Names/ResolvedMonitor.h"

#include <jansson.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "Base/JSONHandle.h"

namespace ostravel::linuxplatform {

namespace {

constexpr std::chrono::seconds kPause{5};
constexpr std::size_t kLongestMessage = 65536;
constexpr std::size_t kMaximumRecords = 64;

// A JSON object and a NUL (varlink.org), which is the literal's terminator.
constexpr char kSubscribe[] =
    R"({"method":"io.systemd.Resolve.Monitor.SubscribeQueryResults","more":true})";

int valueOf(char digit) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto position = kDigits.find(digit);
  return position == std::string_view::npos ? -1 : static_cast<int>(position);
}

// RFC 4648, section 4. Stops at an invalid character.
std::vector<std::byte> decodeBase64(std::string_view text) {
  std::vector<std::byte> bytes;
  unsigned bits = 0;
  unsigned count = 0;
  for (const char character : text) {
    const int value = valueOf(character);
    if (value < 0) {
      break;
    }
    bits = (bits << 6U | static_cast<unsigned>(value)) & 0xFFFFU;
    count += 6;
    if (count >= 8) {
      count -= 8;
      bytes.push_back(static_cast<std::byte>(bits >> count));
    }
  }
  return bytes;
}

const char* firstName(const json_t* questions) {
  return ::json_string_value(::json_object_get(::json_array_get(questions, 0), "name"));
}

}  // namespace

ResolvedMonitor::ResolvedMonitor(std::string path) : path_(std::move(path)) {}

void ResolvedMonitor::refresh(BootClock::time_point now) {
  if (socket_.isOpen() || (lastAttempt_ && now - *lastAttempt_ < kPause)) {
    return;
  }
  lastAttempt_ = now;
  connect();
}

void ResolvedMonitor::connect() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    return;
  }
  std::copy(path_.begin(), path_.end(), address.sun_path);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket.isOpen() ||
      ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::send(socket.get(), kSubscribe, sizeof kSubscribe, MSG_NOSIGNAL) !=
          static_cast<ssize_t>(sizeof kSubscribe)) {
    return;
  }
  socket_ = std::move(socket);
}

void ResolvedMonitor::disconnect() {
  socket_ = FileDescriptor();
  received_.clear();
}

void ResolvedMonitor::receive(const std::function<void(const Answer&)>& handler) {
  std::array<char, 16384> part{};
  const ssize_t size = ::recv(socket_.get(), part.data(), part.size(), MSG_DONTWAIT);
  if (size <= 0) {
    if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
      disconnect();
    }
    return;
  }
  received_.append(part.data(), static_cast<std::size_t>(size));
  std::size_t end = 0;
  while ((end = received_.find('\0')) != std::string::npos) {
    if (const auto answer = parse(std::string_view(received_).substr(0, end))) {
      handler(*answer);
    }
    received_.erase(0, end + 1);
  }
  if (received_.size() > kLongestMessage) {
    disconnect();
  }
}

std::optional<ResolvedMonitor::Answer> ResolvedMonitor::parse(std::string_view message) {
  const JSONHandle root(::json_loadb(message.data(), message.size(), 0, nullptr));
  const json_t* const parameters = ::json_object_get(root.get(), "parameters");
  // After an alias, "question" is for the alias's target; the earlier questions are listed in
  // "collectedQuestions".
  const char* name = firstName(::json_object_get(parameters, "collectedQuestions"));
  if (name == nullptr) {
    name = firstName(::json_object_get(parameters, "question"));
  }
  if (name == nullptr) {
    return std::nullopt;
  }
  Answer answer{name, {}};
  std::transform(answer.name.begin(), answer.name.end(), answer.name.begin(), [](char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                : character;
  });
  const json_t* const records = ::json_object_get(parameters, "answer");
  for (std::size_t index = 0; index < std::min(::json_array_size(records), kMaximumRecords);
       ++index) {
    const json_t* const raw = ::json_object_get(::json_array_get(records, index), "raw");
    const char* const text = ::json_string_value(raw);
    if (const auto resolved = text != nullptr ? parseDNSRecord(decodeBase64(text)) : std::nullopt) {
      answer.addresses.push_back(*resolved);
    }
  }
  return isUsableHostName(answer.name) && !answer.addresses.empty() ? std::optional(answer)
                                                                    : std::nullopt;
}

}  // namespace ostravel::linuxplatform
