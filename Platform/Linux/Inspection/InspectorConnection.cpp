#include "Platform/Linux/Inspection/InspectorConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/SocketOption.h"

namespace ostravel::linuxplatform {

namespace {

// Nobody else may say what runs here. A socket that a service manager made belongs to root.
bool isTrusted(const FileDescriptor& socket) {
  const auto peer = socketOption<ucred>(socket.get(), SOL_SOCKET, SO_PEERCRED);
  return peer && (peer->uid == 0 || peer->uid == ::geteuid());
}

// Takes the descriptors of a message, and keeps the first.
FileDescriptor descriptorIn(msghdr& header) {
  FileDescriptor kept;
  for (cmsghdr* control = CMSG_FIRSTHDR(&header); control != nullptr;
       control = CMSG_NXTHDR(&header, control)) {
    if (control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_RIGHTS) {
      continue;
    }
    const std::size_t count = (control->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t index = 0; index < count; ++index) {
      int number = -1;
      std::memcpy(&number, CMSG_DATA(control) + index * sizeof(int), sizeof number);
      FileDescriptor descriptor(number);
      if (!kept.isOpen()) {
        kept = std::move(descriptor);
      }
    }
  }
  return kept;
}

}  // namespace

InspectorConnection::InspectorConnection(std::string path, std::shared_ptr<InspectorHealth> health)
    : path_(std::move(path)), health_(std::move(health)) {}

std::optional<InspectorConnection::Reply> InspectorConnection::ask(
    InspectionQuestion question, std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  receiveLate();
  if (auto late = late_.take(question)) {
    return Reply{*std::move(late), FileDescriptor(), true};
  }
  // The inspector may have been restarted since the last question: that costs a second attempt.
  constexpr int kAttempts = 2;
  for (int attempt = 0; attempt < kAttempts && isReady(); ++attempt) {
    question.number = ++number_;
    subject_ = LateAnswers::subjectOf(question);
    std::optional<Reply> reply;
    const auto outcome = send(encode(question)) ? await(deadline, reply) : Outcome::ended;
    if (outcome == Outcome::answered) {
      pause_ = kFirstPause;
      subject_.reset();
      health_->noteAnswer();
      return reply;
    }
    if (outcome == Outcome::pending) {
      openSince_ = Clock::now();
      return std::nullopt;
    }
    socket_ = FileDescriptor();
    if (attempt + 1 == kAttempts) {
      giveUp("the inspector ends the connection");
    }
  }
  return std::nullopt;
}

void InspectorConnection::receiveLate() {
  if (!socket_.isOpen() || !openSince_) {
    return;
  }
  std::optional<Reply> reply;
  const auto outcome = receive(reply);
  if (outcome == Outcome::pending) {
    return;
  }
  openSince_.reset();
  if (outcome == Outcome::ended) {
    socket_ = FileDescriptor();
  } else if (subject_) {
    late_.keep(*std::exchange(subject_, std::nullopt), std::move(reply->answer));
  }
}

bool InspectorConnection::isReady() {
  if (socket_.isOpen() && openSince_) {
    const auto silence = Clock::now() - *openSince_;
    if (silence >= kToleratedSilence) {
      health_->noteFailure("the inspector does not answer");
    }
    if (silence < kLongestSilence) {
      return false;
    }
    giveUp("the inspector does not answer");
    openSince_.reset();
  }
  if (!socket_.isOpen() && Clock::now() >= nextAttempt_) {
    connect();
  }
  return socket_.isOpen();
}

void InspectorConnection::connect() {
  socket_ = FileDescriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    giveUp("the path of its socket is too long");
    return;
  }
  path_.copy(address.sun_path, path_.size());
  if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    giveUp(path_ + ": " + std::strerror(errno));
  } else if (!isTrusted(socket_)) {
    giveUp(path_ + " belongs neither to root nor to this user");
  }
}

bool InspectorConnection::send(const std::string& message) {
  return ::send(socket_.get(), message.data(), message.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(message.size());
}

InspectorConnection::Outcome InspectorConnection::receive(std::optional<Reply>& reply) {
  std::vector<char> bytes(kMaximumInspectionMessage);
  while (true) {
    iovec part{bytes.data(), bytes.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    const auto size = ::recvmsg(socket_.get(), &header, MSG_CMSG_CLOEXEC);
    if (size < 0 && errno == EINTR) {
      continue;
    }
    if (size < 0 && errno == EAGAIN) {
      return Outcome::pending;
    }
    FileDescriptor descriptor = size >= 0 ? descriptorIn(header) : FileDescriptor();
    const bool isWhole = size > 0 && (header.msg_flags & MSG_TRUNC) == 0;
    auto answer = isWhole ? decodeInspectionAnswer({bytes.data(), static_cast<std::size_t>(size)})
                          : std::nullopt;
    if (!answer || answer->number > number_) {
      return Outcome::ended;
    }
    if (answer->number == number_) {
      reply.emplace(Reply{*std::move(answer), std::move(descriptor), false});
      return Outcome::answered;
    }
  }
}

InspectorConnection::Outcome InspectorConnection::await(Clock::time_point deadline,
                                                        std::optional<Reply>& reply) {
  while (true) {
    const auto outcome = receive(reply);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (outcome != Outcome::pending || left.count() <= 0) {
      return outcome;
    }
    pollfd waited{socket_.get(), POLLIN, 0};
    ::poll(&waited, 1, static_cast<int>(left.count()));
  }
}

void InspectorConnection::giveUp(const std::string& reason) {
  socket_ = FileDescriptor();
  nextAttempt_ = Clock::now() + pause_;
  pause_ = std::min(2 * pause_, kLongestPause);
  health_->noteFailure(reason);
}

}  // namespace ostravel::linuxplatform
