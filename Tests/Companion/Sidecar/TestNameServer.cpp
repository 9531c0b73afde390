#include "Tests/Companion/Sidecar/TestNameServer.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <string>

namespace ostravel::companion::test {
namespace {

constexpr std::size_t kHeaderSize = 12;
constexpr unsigned kTypeA = 1;
constexpr unsigned kTypeAAAA = 28;

std::string bytesOf(unsigned value) {
  return {static_cast<char>(value >> 8U), static_cast<char>(value & 0xFFU)};
}

unsigned valueAt(std::string_view text, std::size_t index) {
  return static_cast<unsigned>(static_cast<std::uint8_t>(text[index])) << 8U |
         static_cast<std::uint8_t>(text[index + 1]);
}

std::string record(unsigned type, const std::string& data) {
  constexpr unsigned kNameOfQuestion = 0xC00C;
  constexpr unsigned kInternet = 1;
  const std::string secondsToLive(4, '\0');
  return bytesOf(kNameOfQuestion) + bytesOf(type) + bytesOf(kInternet) + secondsToLive +
         bytesOf(static_cast<unsigned>(data.size())) + data;
}

void require(bool isTrue, const char* what) {
  if (!isTrue) {
    throw std::runtime_error(what);
  }
}

}  // namespace

TestNameServer::TestNameServer() {
  require(::pipe(end_) == 0, "pipe");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof(address);
  // The system chooses a port for one protocol; another program may have it for the other one.
  while (listener_ < 0) {
    datagrams_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    address.sin_port = 0;
    require(::bind(datagrams_, generic, size) == 0, "bind");
    ::getsockname(datagrams_, generic, &size);
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(listener, generic, size) == 0 && ::listen(listener, 16) == 0) {
      listener_ = listener;
    } else {
      ::close(listener);
      ::close(datagrams_);
    }
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { run(); });
}

TestNameServer::~TestNameServer() {
  ::close(end_[1]);
  thread_.join();
  for (const int descriptor : {datagrams_, listener_, end_[0]}) {
    ::close(descriptor);
  }
}

void TestNameServer::waitForQuestions(int count) const {
  for (int now = questions_; now < count; now = questions_) {
    questions_.wait(now);
  }
}

void TestNameServer::run() {
  while (true) {
    std::array<pollfd, 3> waits{pollfd{.fd = end_[0], .events = POLLIN, .revents = 0},
                                pollfd{.fd = datagrams_, .events = POLLIN, .revents = 0},
                                pollfd{.fd = listener_, .events = POLLIN, .revents = 0}};
    if (::poll(waits.data(), waits.size(), -1) < 0 || waits[0].revents != 0) {
      return;
    }
    if (waits[1].revents != 0) {
      answerDatagram();
    }
    if (waits[2].revents != 0) {
      answerStream();
    }
  }
}

void TestNameServer::answerDatagram() {
  std::array<char, 512> bytes{};
  sockaddr_in from{};
  socklen_t size = sizeof(from);
  auto* const generic = reinterpret_cast<sockaddr*>(&from);
  const ssize_t received = ::recvfrom(datagrams_, bytes.data(), bytes.size(), 0, generic, &size);
  if (received < static_cast<ssize_t>(kHeaderSize)) {
    return;
  }
  const std::string answer =
      answerTo({bytes.data(), static_cast<std::size_t>(received)}, Transport::datagram);
  if (!answer.empty()) {
    ::sendto(datagrams_, answer.data(), answer.size(), 0, generic, size);
  }
}

void TestNameServer::answerStream() {
  const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  const timeval patience{.tv_sec = 30, .tv_usec = 0};
  ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  // Each message follows its length; those of this test are short enough to come in one piece.
  std::array<char, 512> bytes{};
  for (ssize_t received = ::recv(connection, bytes.data(), bytes.size(), 0); received > 0;
       received = ::recv(connection, bytes.data(), bytes.size(), 0)) {
    std::string_view questions(bytes.data(), static_cast<std::size_t>(received));
    while (questions.size() > 2) {
      const unsigned length = valueAt(questions, 0);
      const std::string answer = answerTo(questions.substr(2, length), Transport::stream);
      const std::string message = bytesOf(static_cast<unsigned>(answer.size())) + answer;
      ::send(connection, message.data(), message.size(), MSG_NOSIGNAL);
      questions.remove_prefix(2 + length);
    }
  }
  ::close(connection);
}

// Empty for none.
std::string TestNameServer::answerTo(std::string_view question, Transport transport) {
  ++questions_;
  questions_.notify_all();
  const auto labelSize = static_cast<std::uint8_t>(question[kHeaderSize]);
  const std::string_view label = question.substr(kHeaderSize + 1, labelSize);
  const std::size_t nameEnd = question.find('\0', kHeaderSize) + 1;
  const unsigned type = valueAt(question, nameEnd);
  const bool isTruncated = label.starts_with("large") && transport == Transport::datagram;
  const bool hasA = label.starts_with("four") || label.starts_with("both") ||
                    (label.starts_with("large") && !isTruncated);
  const bool hasAAAA = label.starts_with("six") || label.starts_with("both");
  if (label.starts_with("silent")) {
    return {};
  }
  std::string records;
  if (hasA && type == kTypeA) {
    records = record(kTypeA, std::string("\x7F\0\0\x07", 4));
  }
  if (hasAAAA && type == kTypeAAAA) {
    records = record(kTypeAAAA, std::string(15, '\0') + "\x07");
  }
  constexpr unsigned kAnswer = 0x8180;
  constexpr unsigned kTruncated = 0x0200;
  constexpr unsigned kNoSuchName = 3;
  const bool exists = hasA || hasAAAA || isTruncated;
  const unsigned flags = kAnswer | (isTruncated ? kTruncated : 0) | (exists ? 0 : kNoSuchName);
  return std::string(question.substr(0, 2)) + bytesOf(flags) + bytesOf(1) +
         bytesOf(records.empty() ? 0 : 1) + bytesOf(0) + bytesOf(0) +
         std::string(question.substr(kHeaderSize, nameEnd + 4 - kHeaderSize)) + records;
}

}  // namespace ostravel::companion::test
