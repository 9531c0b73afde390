#include "Companion/Shared/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "Base/FileDescriptor.h"

namespace ostravel::companion {
namespace {

using Failure = ControlClient::Failure;
using Deadline = ControlClient::Deadline;

constexpr int kVersion = 1;

// Waits for one of the events; empty if one occurred before the deadline.
std::optional<Failure> waitFor(int descriptor, short events, Deadline deadline) {
  while (true) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return Failure{"timeout", "the extension did not answer in time"};
    }
    pollfd waited{descriptor, events, 0};
    const int most = 60'000;
    const int count = ::poll(
        &waited, 1, static_cast<int>(std::min<std::chrono::milliseconds::rep>(left.count(), most)));
    if (count > 0) {
      return std::nullopt;
    }
  }
}

Failure failureOf(int error, const std::string& path) {
  const std::string reason = std::generic_category().message(error);
  switch (error) {
    case ENOENT:
    case ECONNREFUSED:
      return {"not_running", "the extension is not running, or has no control socket at " + path};
    case EACCES:
    case EPERM:
      return {"not_permitted", "only root and members of the group ostravel may use " + path};
    case EAGAIN:
      return {"busy", "too many programs are connecting to " + path};
    default:
      return {"not_running", path + ": " + reason};
  }
}

std::variant<FileDescriptor, Failure> connectTo(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    return Failure{"not_running", "\"" + path + "\" cannot be the path of a socket"};
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  FileDescriptor descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!descriptor.isOpen()) {
    return failureOf(errno, path);
  }
  // Never in progress: a full backlog fails with EAGAIN (unix(7)).
  if (::connect(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
      0) {
    return failureOf(errno, path);
  }
  return descriptor;
}

std::optional<Failure> send(int descriptor, std::string_view text, Deadline deadline) {
  while (!text.empty()) {
    const ssize_t sent = ::send(descriptor, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent > 0) {
      text.remove_prefix(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN) {
      if (auto failure = waitFor(descriptor, POLLOUT, deadline)) {
        return failure;
      }
    } else if (errno != EINTR) {
      // The request was refused before it was read; the answer may contain the reason.
      return std::nullopt;
    }
  }
  return std::nullopt;
}

// One line, without its line feed.
std::variant<std::string, Failure> receiveLine(int descriptor, Deadline deadline) {
  std::string line;
  std::array<char, 65536> piece{};
  while (line.size() <= ControlClient::kLongestAnswer) {
    const ssize_t size = ::recv(descriptor, piece.data(), piece.size(), 0);
    if (size > 0) {
      line.append(piece.data(), static_cast<std::size_t>(size));
      if (line.back() == '\n') {
        line.pop_back();
        return line;
      }
    } else if (size < 0 && errno == EAGAIN) {
      if (auto failure = waitFor(descriptor, POLLIN, deadline)) {
        return *std::move(failure);
      }
    } else if (size == 0 || errno != EINTR) {
      return Failure{"no_answer", "the extension closed the connection without an answer"};
    }
  }
  return Failure{"bad_answer", "the answer is too long"};
}

std::string textOf(const json_t* object, const char* key) {
  const char* const text = json_string_value(json_object_get(object, key));
  return text == nullptr ? std::string() : std::string(text);
}

ControlClient::Answer answerOf(const std::string& line) {
  const JSONHandle answer(json_loadb(line.data(), line.size(), JSON_REJECT_DUPLICATES, nullptr));
  json_t* const result = json_object_get(answer.get(), "result");
  if (json_is_true(json_object_get(answer.get(), "ok")) && json_is_object(result)) {
    return JSONHandle(json_incref(result));
  }
  const json_t* const error = json_object_get(answer.get(), "error");
  if (!json_is_object(error)) {
    return Failure{"bad_answer", "the answer is not one of the control protocol"};
  }
  return Failure{textOf(error, "code"), textOf(error, "message")};
}

}  // namespace

ControlClient::Answer ControlClient::ask(JSONHandle request, Deadline deadline) const {
  json_object_set_new(request.get(), "version", json_integer(kVersion));
  const std::unique_ptr<char, decltype(&std::free)> text(json_dumps(request.get(), JSON_COMPACT),
                                                         &std::free);
  if (!text) {
    return Failure{"bad_request", "the request is no JSON object of valid UTF-8"};
  }
  auto connected = connectTo(path_);
  if (auto* const failure = std::get_if<Failure>(&connected)) {
    return std::move(*failure);
  }
  const int descriptor = std::get<FileDescriptor>(connected).get();
  if (auto failure = send(descriptor, std::string(text.get()) + '\n', deadline)) {
    return *std::move(failure);
  }
  auto line = receiveLine(descriptor, deadline);
  if (auto* const failure = std::get_if<Failure>(&line)) {
    return std::move(*failure);
  }
  return answerOf(std::get<std::string>(line));
}

ControlClient::Answer ControlClient::ask(std::string_view request, Deadline deadline) const {
  JSONHandle object(json_object());
  json_object_set_new(object.get(), "request", json_stringn(request.data(), request.size()));
  return ask(std::move(object), deadline);
}

}  // namespace ostravel::companion
