#include "Platform/Linux/Inspection/RemoteProcessTable.h"

#include <utility>

#include "Platform/Linux/Inspection/InspectorHealth.h"
#include "Platform/Linux/Processes/AppImage.h"
#include "Platform/Linux/Processes/RegisteredPaths.h"

namespace ostravel::linuxplatform {

namespace {

using Kind = InspectionQuestion::Kind;

Process processWith(pid_t pid) {
  Process process;
  process.pid = pid;
  return process;
}

}  // namespace

RemoteProcessTable::RemoteProcessTable(std::unique_ptr<InspectorConnection> connection)
    : ProcessTable(std::make_shared<SearchAllowance>()), connection_(std::move(connection)) {}

ProcessTableSource RemoteProcessTable::source(std::string path,
                                              std::function<void(const std::string&)> warn) {
  return [path = std::move(path), health = std::make_shared<InspectorHealth>(std::move(warn))] {
    return std::make_unique<RemoteProcessTable>(
        std::make_unique<InspectorConnection>(path, health));
  };
}

std::optional<ProcessStamp> RemoteProcessTable::stampOf(pid_t pid) const {
  auto answer = find({.kind = Kind::stamp, .process = processWith(pid)});
  return answer ? std::optional(answer->process.stamp) : std::nullopt;
}

std::optional<Process> RemoteProcessTable::find(pid_t pid,
                                                std::optional<FileIdentity> executable) const {
  auto answer = find({.kind = Kind::find, .process = processWith(pid), .file = executable});
  return answer && answer->process.pid == pid ? std::optional(std::move(answer->process))
                                              : std::nullopt;
}

bool RemoteProcessTable::refreshExecutable(Process& process,
                                           std::optional<FileIdentity> executable) const {
  auto answer = find({.kind = Kind::refreshExecutable, .process = process, .file = executable});
  if (!answer || answer->process.pid != process.pid) {
    return false;
  }
  process = std::move(answer->process);
  return true;
}

bool RemoteProcessTable::refreshControlGroup(Process& process) const {
  auto answer = find({.kind = Kind::refreshControlGroup, .process = process});
  if (!answer || answer->process.pid != process.pid) {
    return false;
  }
  process = std::move(answer->process);
  return true;
}

std::optional<std::string> RemoteProcessTable::workingFolderOf(const Process& process,
                                                               const FileIdentity& expected) const {
  auto answer = find({.kind = Kind::workingFolder, .process = process, .file = expected});
  return answer ? std::optional(std::move(answer->text)) : std::nullopt;
}

std::optional<std::string> RemoteProcessTable::appImageOf(const Process& process) const {
  if (!mayBeAppImage(process)) {
    return std::nullopt;
  }
  auto answer = find({.kind = Kind::appImage, .process = process});
  return answer ? std::optional(std::move(answer->text)) : std::nullopt;
}

std::optional<ProcessLife> RemoteProcessTable::lifeOf(const Process& process) const {
  auto reply = ask({.kind = Kind::life, .process = process});
  if (!reply || !reply->answer.isPositive || !reply->descriptor.isOpen()) {
    return std::nullopt;
  }
  return ProcessLife(std::move(reply->descriptor), process.stamp.startTime);
}

std::optional<pid_t> RemoteProcessTable::holderOf(std::uint32_t inode, uid_t user,
                                                  std::optional<pid_t> candidate) {
  const auto reply =
      ask({.kind = Kind::holder,
           .search = {.number = 0, .inode = inode, .first = {}, .preferredUser = user},
           .candidate = candidate},
          kPatience + kLongestHolderSearch);
  if (!reply) {
    return std::nullopt;
  }
  allowance().spend(user, reply->answer.work);
  return reply->answer.isPositive ? std::optional(reply->answer.step.holder) : std::nullopt;
}

HolderSearchStep RemoteProcessTable::proceed(const HolderSearch& search,
                                             std::optional<pid_t> preferred,
                                             std::chrono::milliseconds work,
                                             std::chrono::milliseconds longest) {
  const auto reply = ask({.kind = Kind::search,
                          .search = search,
                          .candidate = preferred,
                          .work = work,
                          .longest = longest},
                         kPatience + longest);
  if (!reply) {
    return {};
  }
  allowance().spend(search.preferredUser, reply->answer.work);
  return reply->answer.step;
}

std::optional<bool> RemoteProcessTable::hasInherited(pid_t pid, std::uint32_t inode) const {
  const auto reply =
      ask({.kind = Kind::inheritance,
           .process = processWith(pid),
           .search = {.number = 0, .inode = inode, .first = {}, .preferredUser = {}}});
  return reply ? std::optional(reply->answer.isPositive) : std::nullopt;
}

std::optional<CommonView> RemoteProcessTable::commonView() const {
  if (!commonView_) {
    const auto answer = find({.kind = Kind::commonView});
    commonView_ = answer ? std::optional(answer->view) : std::nullopt;
  }
  return commonView_;
}

std::vector<std::optional<std::string>> RemoteProcessTable::problemsWith(
    const std::vector<std::string>& paths) const {
  const auto deadline = InspectorConnection::Clock::now() + RegisteredPaths::kPatience;
  std::vector<std::optional<std::string>> problems;
  for (const std::string& path : paths) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - InspectorConnection::Clock::now());
    auto reply =
        left.count() > 0 ? ask({.kind = Kind::registeredPath, .path = path}, left) : std::nullopt;
    problems.push_back(reply && reply->answer.isPositive
                           ? std::optional(std::move(reply->answer.text))
                           : std::nullopt);
  }
  return problems;
}

std::optional<InspectorConnection::Reply> RemoteProcessTable::ask(
    InspectionQuestion question, std::chrono::milliseconds patience) const {
  const Kind kind = question.kind;
  auto reply = connection_->ask(std::move(question), patience);
  // The file at a late answer's path may have been replaced since.
  isAnswering_ = reply && !(reply->isLate && kind == Kind::find);
  return reply;
}

std::optional<InspectionAnswer> RemoteProcessTable::find(InspectionQuestion question) const {
  auto reply = ask(std::move(question));
  return reply && reply->answer.isPositive ? std::optional(std::move(reply->answer)) : std::nullopt;
}

}  // namespace ostravel::linuxplatform
