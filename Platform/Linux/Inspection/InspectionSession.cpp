#include "Platform/Linux/Inspection/InspectionSession.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Processes/SearchBudget.h"

namespace ostravel::linuxplatform {

namespace {

// The longest search, which no first packet waits for.
constexpr std::chrono::nanoseconds kLongestSearch = std::chrono::seconds(2);

bool sendMessage(int connection, std::string message, const ProcessLife& life) {
  iovec part{message.data(), message.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  if (life.state() && life.state()->isOpen()) {
    const int descriptor = life.state()->get();
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    cmsghdr* const first = CMSG_FIRSTHDR(&header);
    first->cmsg_level = SOL_SOCKET;
    first->cmsg_type = SCM_RIGHTS;
    first->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(first), &descriptor, sizeof descriptor);
  }
  return ::sendmsg(connection, &header, MSG_NOSIGNAL) == static_cast<ssize_t>(message.size());
}

template <typename Value>
bool take(std::optional<Value> found, Value& place) {
  const bool isFound = found.has_value();
  if (isFound) {
    place = *std::move(found);
  }
  return isFound;
}

}  // namespace

void InspectionSession::serve(int connection) {
  InspectionSession session;
  std::vector<char> bytes(kMaximumInspectionMessage + 1);
  while (true) {
    const auto size = ::recv(connection, bytes.data(), bytes.size(), 0);
    if (size < 0 && errno == EINTR) {
      continue;
    }
    auto question = size > 0
                        ? decodeInspectionQuestion({bytes.data(), static_cast<std::size_t>(size)})
                        : std::nullopt;
    if (!question) {
      return;
    }
    const Reply reply = session.replyTo(*std::move(question));
    if (!sendMessage(connection, encode(reply.answer), reply.life)) {
      return;
    }
  }
}

InspectionSession::Reply InspectionSession::replyTo(InspectionQuestion question) {
  Reply reply;
  reply.answer.number = question.number;
  const auto begin = SearchBudget::timeOfThread();
  inspect(question, reply);
  reply.answer.work = SearchBudget::timeOfThread() - begin;
  return reply;
}

void InspectionSession::inspect(InspectionQuestion& question, Reply& reply) {
  using Kind = InspectionQuestion::Kind;
  InspectionAnswer& answer = reply.answer;
  Process& process = question.process;
  const HolderSearch& search = question.search;
  const auto milliseconds = [](std::chrono::nanoseconds time) {
    return std::chrono::ceil<std::chrono::milliseconds>(std::min(time, kLongestSearch));
  };
  switch (question.kind) {
    case Kind::stamp:
      answer.isPositive = take(processes_.stampOf(process.pid), answer.process.stamp);
      break;
    case Kind::find:
      answer.isPositive = take(processes_.find(process.pid, question.file), answer.process);
      break;
    case Kind::refreshExecutable:
      answer.isPositive = processes_.refreshExecutable(process, question.file);
      answer.process = std::move(process);
      break;
    case Kind::refreshControlGroup:
      answer.isPositive = processes_.refreshControlGroup(process);
      answer.process = std::move(process);
      break;
    case Kind::workingFolder:
      answer.isPositive =
          question.file && take(processes_.workingFolderOf(process, *question.file), answer.text);
      break;
    case Kind::appImage:
      answer.isPositive = take(processes_.appImageOf(process), answer.text);
      break;
    case Kind::life:
      answer.isPositive = take(processes_.lifeOf(process), reply.life);
      break;
    case Kind::holder:
      answer.isPositive =
          search.preferredUser &&
          take(processes_.holderOf(search.inode, *search.preferredUser, question.candidate),
               answer.step.holder);
      break;
    case Kind::search:
      answer.step = processes_.proceed(search, question.candidate, milliseconds(question.work),
                                       milliseconds(question.longest));
      answer.isPositive = answer.step.result == HolderSearchStep::Result::found;
      break;
    case Kind::inheritance:
      answer.isPositive = processes_.hasInherited(process.pid, search.inode).value_or(false);
      break;
    case Kind::commonView:
      answer.isPositive = take(processes_.commonView(), answer.view);
      break;
    case Kind::registeredPath:
      answer.isPositive = take(processes_.problemsWith({question.path}).front(), answer.text);
      break;
  }
}

}  // namespace ostravel::linuxplatform
