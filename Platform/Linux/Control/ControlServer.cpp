#include "Platform/Linux/Control/ControlServer.h"

#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <utility>
#include <variant>

#include "Platform/Linux/Control/ControlAnswer.h"

namespace ostravel::linuxplatform {

namespace {

using namespace std::chrono_literals;

// Nothing reports when another program closes descriptors, so accepting is retried after a pause.
constexpr auto kPause = 100ms;

}  // namespace

ControlServer::ControlServer(int listener, std::optional<gid_t> group, Handler handler,
                             const Limits& limits)
    : listener_(listener),
      group_(group),
      handler_(std::move(handler)),
      limits_(limits),
      thread_([this] { run(); }) {}

ControlServer::~ControlServer() {
  stop_.signal();
  thread_.join();
}

void ControlServer::run() {
  ::pthread_setname_np(::pthread_self(), "control");
  while (true) {
    std::vector<pollfd> waited{{stop_.descriptor(), POLLIN, 0}};
    waited.push_back({pausedUntil_ ? -1 : listener_, POLLIN, 0});
    for (const Connection& connection : connections_) {
      const short events = connection.answer.empty() ? POLLIN : POLLOUT;
      waited.push_back({connection.socket.get(), events, 0});
    }
    static_cast<void>(::poll(waited.data(), waited.size(), timeout()));
    if (waited[0].revents != 0) {
      return;
    }
    const auto now = Clock::now();
    std::size_t index = 2;
    std::erase_if(connections_, [this, &waited, &index, now](Connection& connection) {
      const bool isReady = waited[index++].revents != 0;
      return (isReady && !proceed(connection)) || now >= connection.deadline;
    });
    if (pausedUntil_ && now >= *pausedUntil_) {
      pausedUntil_.reset();
    }
    if (waited[1].revents != 0) {
      acceptAll();
    }
  }
}

// For poll(2).
int ControlServer::timeout() const {
  std::optional<Clock::time_point> next = pausedUntil_;
  for (const Connection& connection : connections_) {
    next = next ? std::min(*next, connection.deadline) : connection.deadline;
  }
  if (!next) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

void ControlServer::acceptAll() {
  while (true) {
    FileDescriptor socket(::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket.isOpen()) {
      accept(std::move(socket));
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
      pausedUntil_ = Clock::now() + kPause;
      return;
    } else if (errno != EINTR && errno != ECONNABORTED) {
      return;
    }
  }
}

void ControlServer::accept(FileDescriptor socket) {
  const auto peer = PeerAccess::of(socket.get(), group_);
  Connection connection{std::move(socket), peer, Clock::now() + limits_.requestTime};
  if (peer.level == PeerAccess::Level::none) {
    connection.answer = errorLine(
        {"not_permitted", "only root and members of the group ostravel may ask"}, std::nullopt);
  } else if (!hasRoomFor(peer)) {
    connection.answer =
        errorLine({"busy", "too many programs are asking; ask again later"}, std::nullopt);
  }
  if (connection.answer.empty()) {
    connections_.push_back(std::move(connection));
  } else {
    // The answer fits into the socket's buffer; a peer whose buffer is full gets none.
    static_cast<void>(send(connection));
  }
}

bool ControlServer::hasRoomFor(const PeerAccess& peer) const {
  if (connections_.size() >= limits_.connections) {
    return false;
  }
  const auto count = std::ranges::count(
      connections_, peer.user, [](const Connection& connection) { return connection.peer.user; });
  return peer.user == 0 || static_cast<std::size_t>(count) < limits_.connectionsPerUser;
}

bool ControlServer::proceed(Connection& connection) {
  return connection.answer.empty() ? receive(connection) : send(connection);
}

bool ControlServer::receive(Connection& connection) {
  std::array<char, ControlRequest::kLongestLine + 1> piece{};
  const ssize_t size = ::recv(connection.socket.get(), piece.data(), piece.size(), MSG_DONTWAIT);
  if (size <= 0) {
    return size < 0 && (errno == EAGAIN || errno == EINTR);
  }
  connection.request.append(piece.data(), static_cast<std::size_t>(size));
  const auto end = connection.request.find('\n');
  if (std::min(end, connection.request.size()) > ControlRequest::kLongestLine) {
    connection.answer = errorLine({"bad_request", "the request is too long"}, std::nullopt);
  } else if (end == std::string::npos) {
    return true;
  } else {
    connection.answer = answerTo(connection.request.substr(0, end), connection.peer);
  }
  connection.deadline = Clock::now() + limits_.answerTime;
  return send(connection);
}

bool ControlServer::send(Connection& connection) {
  while (connection.sent < connection.answer.size()) {
    const ssize_t count =
        ::send(connection.socket.get(), connection.answer.data() + connection.sent,
               connection.answer.size() - connection.sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count > 0) {
      connection.sent += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      return errno == EAGAIN;
    }
  }
  return false;
}

std::string ControlServer::answerTo(const std::string& line, const PeerAccess& peer) const {
  const auto parsed = ControlRequest::parse(line);
  if (const auto* const error = std::get_if<ControlError>(&parsed)) {
    return errorLine(*error, std::nullopt);
  }
  const auto& request = std::get<ControlRequest>(parsed);
  if (request.kind == ControlRequest::Kind::reload && peer.level != PeerAccess::Level::full) {
    return errorLine({"not_permitted", "only root may reload"}, request.kind);
  }
  try {
    return handler_(request, peer);
  } catch (const std::exception& failure) {
    return errorLine({"unavailable", failure.what()}, request.kind);
  }
}

}  // namespace ostravel::linuxplatform
