#include "Platform/Linux/Identity/ProxyTrial.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "Platform/Interface/SystemLimits.h"
#include "Platform/Linux/Identity/ProxyAnswer.h"
#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/Kernel/SocketOption.h"

namespace ostravel::linuxplatform {

namespace {

using platform::limits::kMaxProxyAnswer;

// Limit on the part of a response that appears in the log.
constexpr std::size_t kMaximumShownAnswer = 100;
// Too many to be guessed.
constexpr std::size_t kSecretBytes = 16;
// Search time for the process of a socket. No flow waits for it, and it is spent once per start of
// the proxy.
constexpr std::chrono::milliseconds kHolderBudget{500};
constexpr std::chrono::seconds kLongestHolderSearch{2};

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Needs no mark: connections to the proxy's own port are never intercepted.
FileDescriptor makeSocket() {
  return FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

FileDescriptor listenOnLoopback() {
  FileDescriptor listener = makeSocket();
  const sockaddr_in address = loopback(0);
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  if (::bind(listener.get(), generic, sizeof address) != 0 ||
      ::listen(listener.get(), static_cast<int>(ProxyTrial::kMaximumCallers)) != 0) {
    return FileDescriptor();
  }
  return listener;
}

bool sendAll(const FileDescriptor& connection, std::string_view bytes) {
  // Small enough for the buffer of a new connection.
  return ::send(connection.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(bytes.size());
}

// Text, because some proxies inspect what their tunnels carry.
std::string makeSecret() {
  std::array<unsigned char, kSecretBytes> bytes{};
  if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    return {};
  }
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string secret;
  for (const unsigned char byte : bytes) {
    secret += kDigits[byte >> 4U];
    secret += kDigits[byte & 0xfU];
  }
  return secret;
}

std::string_view firstLineOf(std::string_view answer) {
  std::string_view line = answer.substr(0, answer.find('\n'));
  if (line.ends_with('\r')) {
    line.remove_suffix(1);
  }
  return line;
}

bool hasFirstLine(std::string_view answer) {
  return answer.find('\n') != std::string_view::npos;
}

bool hasWholeHeader(std::string_view answer) {
  return answer.find("\r\n\r\n") != std::string_view::npos ||
         answer.find("\n\n") != std::string_view::npos;
}

// A response that has not arrived completely may still be a proxy's, unless it already begins
// differently.
bool isUnfinished(std::string_view answer) {
  constexpr std::string_view kProtocol = "HTTP/1.";
  return !hasFirstLine(answer) && answer.size() < kMaxProxyAnswer &&
         answer.substr(0, kProtocol.size()) == kProtocol.substr(0, answer.size());
}

ProxyTrial::Outcome unanswered(std::string why) {
  ProxyTrial::Outcome outcome;
  outcome.answer = std::move(why);
  return outcome;
}

}  // namespace

ProxyTrial::ProxyTrial(SocketDiagnostics& diagnostics, const ProcessTableSource& processes,
                       std::uint16_t port, std::uint64_t listener, int interrupt)
    : diagnostics_(diagnostics),
      processes_(processes()),
      address_{AddressFamily::ipv4, {IN_LOOPBACKNET, 0, 0, 1}, port},
      listener_(listener),
      interrupt_(interrupt) {}

std::optional<ProxyTrial::Outcome> ProxyTrial::run() {
  if (!isStillListening()) {
    return std::nullopt;
  }
  Outcome outcome = ask();
  // Cookies are never reused, so the same socket has been listening throughout.
  if (isInterrupted() || !isStillListening()) {
    return std::nullopt;
  }
  return outcome;
}

ProxyTrial::Outcome ProxyTrial::ask() {
  deadline_ = Clock::now() + kAnswerDeadline;
  const FileDescriptor target = listenOnLoopback();
  const auto targetAddress = ownAddressOf(target.get());
  const std::string secret = makeSecret();
  if (!target.isOpen() || !targetAddress || secret.empty()) {
    return unanswered("it could not be asked");
  }
  const FileDescriptor connection = connectToListener();
  if (!connection.isOpen()) {
    return unanswered("it accepts no connection");
  }
  const std::string authority =
      targetAddress->addressText() + ":" + std::to_string(targetAddress->port);
  if (!sendAll(connection,
               "CONNECT " + authority + " HTTP/1.1\r\nHost: " + authority + "\r\n\r\n")) {
    return unanswered("it takes no request");
  }

  const std::string answer = receiveAnswer(connection.get());
  const std::string_view line = firstLineOf(answer);
  const auto kind = judgeProxyAnswer(line);
  Outcome outcome;
  outcome.answer = line.substr(0, kMaximumShownAnswer);
  if (isUnfinished(answer) || (kind == ProxyAnswer::tunnel && !hasWholeHeader(answer))) {
    return unanswered(Clock::now() < deadline_
                          ? "it ends the connection"
                          : "no answer in " + std::to_string(kAnswerDeadline.count()) + " s");
  }
  if (kind == ProxyAnswer::notAProxy) {
    outcome.judgement = Judgement::notAProxy;
    return outcome;
  }
  outcome.judgement = Judgement::proxy;
  outcome.acceptor = peerOf(connection);
  if (kind == ProxyAnswer::tunnel && sendAll(connection, secret)) {
    deadline_ = Clock::now() + kArrivalDeadline;
    outcome.dialler = peerOf(awaitSecret(target, secret));
  }
  return outcome;
}

FileDescriptor ProxyTrial::connectToListener() {
  FileDescriptor connection = makeSocket();
  const sockaddr_in address = loopback(address_.port);
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  if (::connect(connection.get(), generic, sizeof address) == 0) {
    return connection;
  }
  int error = errno;
  if (error == EINPROGRESS && waitFor(connection.get(), POLLOUT)) {
    error = socketOption<int>(connection.get(), SOL_SOCKET, SO_ERROR).value_or(error);
  }
  return error == 0 ? std::move(connection) : FileDescriptor();
}

std::string ProxyTrial::receiveAnswer(int connection) {
  std::string answer;
  std::array<char, 4096> part;
  while (answer.size() < kMaxProxyAnswer && waitFor(connection, POLLIN)) {
    const auto received = ::recv(connection, part.data(), part.size(), 0);
    if (received <= 0) {
      break;
    }
    answer.append(part.data(), static_cast<std::size_t>(received));
    const bool isTunnel = judgeProxyAnswer(firstLineOf(answer)) == ProxyAnswer::tunnel;
    if (hasFirstLine(answer) && (!isTunnel || hasWholeHeader(answer))) {
      break;
    }
  }
  return answer;
}

FileDescriptor ProxyTrial::awaitSecret(const FileDescriptor& target, std::string_view secret) {
  std::vector<Caller> callers;
  while (true) {
    std::vector<pollfd> waited{{interrupt_, POLLIN, 0}};
    // Further callers wait in the backlog.
    const short events = callers.size() < kMaximumCallers ? POLLIN : 0;
    waited.push_back({target.get(), events, 0});
    for (const Caller& caller : callers) {
      waited.push_back({caller.connection.get(), POLLIN, 0});
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
    if (left.count() <= 0 ||
        ::poll(waited.data(), waited.size(), static_cast<int>(left.count())) <= 0 ||
        waited[0].revents != 0) {
      return FileDescriptor();
    }
    const auto found = receiveSecret(callers, secret);
    if (found != callers.end()) {
      return std::move(found->connection);
    }
    if (waited[1].revents != 0) {
      FileDescriptor accepted(
          ::accept4(target.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (accepted.isOpen()) {
        callers.push_back({std::move(accepted)});
      }
    }
  }
}

std::vector<ProxyTrial::Caller>::iterator ProxyTrial::receiveSecret(std::vector<Caller>& callers,
                                                                    std::string_view secret) {
  std::array<char, 2 * kSecretBytes> part;
  for (auto caller = callers.begin(); caller != callers.end();) {
    const std::string_view missing = secret.substr(caller->delivered);
    const auto received = ::recv(caller->connection.get(), part.data(), missing.size(), 0);
    if (received < 0 && errno == EAGAIN) {
      ++caller;
      continue;
    }
    const auto length = static_cast<std::size_t>(std::max<ssize_t>(received, 0));
    if (length == 0 || missing.substr(0, length) != std::string_view(part.data(), length)) {
      caller = callers.erase(caller);
      continue;
    }
    caller->delivered += length;
    if (caller->delivered == secret.size()) {
      return caller;
    }
    ++caller;
  }
  return callers.end();
}

std::optional<Process> ProxyTrial::peerOf(const FileDescriptor& connection) {
  const auto own = ownAddressOf(connection.get());
  const auto other = peerAddressOf(connection.get());
  if (!own || !other) {
    return std::nullopt;
  }
  const auto answer = diagnostics_.find({TransportProtocol::tcp, *other, *own}, 0);
  if (!answer || !*answer || (*answer)->inode == 0) {
    return std::nullopt;
  }
  // A search is never continued: it gets its whole budget in one step.
  const HolderSearch search{.number = ++searches_,
                            .inode = (*answer)->inode,
                            .first = {},
                            .preferredUser = (*answer)->uid};
  const auto step = processes_->proceed(search, std::nullopt, kHolderBudget, kLongestHolderSearch);
  return step.result == HolderSearchStep::Result::found ? processes_->find(step.holder)
                                                        : std::nullopt;
}

bool ProxyTrial::isStillListening() {
  const auto answer = diagnostics_.findListener(address_);
  return answer && *answer && (*answer)->cookie == listener_;
}

bool ProxyTrial::waitFor(int descriptor, short events) {
  std::array<pollfd, 2> waited{{{interrupt_, POLLIN, 0}, {descriptor, events, 0}}};
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
  return left.count() > 0 &&
         ::poll(waited.data(), waited.size(), static_cast<int>(left.count())) > 0 &&
         waited[0].revents == 0;
}

bool ProxyTrial::isInterrupted() const {
  pollfd waited{interrupt_, POLLIN, 0};
  return ::poll(&waited, 1, 0) > 0;
}

}  // namespace ostravel::linuxplatform
