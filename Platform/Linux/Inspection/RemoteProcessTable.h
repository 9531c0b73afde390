#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Inspection/InspectorConnection.h"
#include "Platform/Linux/Processes/ProcessTable.h"

namespace ostravel::linuxplatform {

// Asks the inspector, see InspectionServer. Without an answer a process counts as one that cannot
// be inspected: what is known about it stays as it was. Used by one thread.
class RemoteProcessTable final : public ProcessTable {
 public:
  // How long the inspector may take to answer, besides the time that a search is given: as long as
  // a held first packet may wait for the local proxy to be found.
  static constexpr std::chrono::milliseconds kPatience{100};

  explicit RemoteProcessTable(std::unique_ptr<InspectorConnection> connection);
  // path: where the inspector listens. warn receives a sentence about an inspector that does not
  // answer, on any thread.
  static ProcessTableSource source(std::string path, std::function<void(const std::string&)> warn);

  using ProcessTable::find;
  using ProcessTable::holderOf;
  using ProcessTable::refreshExecutable;

  bool isAnswering() const override { return isAnswering_; }
  std::optional<ProcessStamp> stampOf(pid_t pid) const override;
  std::optional<Process> find(pid_t pid, std::optional<FileIdentity> executable) const override;
  bool refreshExecutable(Process& process, std::optional<FileIdentity> executable) const override;
  bool refreshControlGroup(Process& process) const override;
  std::optional<std::string> workingFolderOf(const Process& process,
                                             const FileIdentity& expected) const override;
  std::optional<std::string> appImageOf(const Process& process) const override;
  std::optional<ProcessLife> lifeOf(const Process& process) const override;
  std::optional<pid_t> holderOf(std::uint32_t inode, uid_t user,
                                std::optional<pid_t> candidate) override;
  HolderSearchStep proceed(const HolderSearch& search, std::optional<pid_t> preferred,
                           std::chrono::milliseconds work,
                           std::chrono::milliseconds longest) override;
  std::optional<bool> hasInherited(pid_t pid, std::uint32_t inode) const override;
  std::optional<CommonView> commonView() const override;
  std::vector<std::optional<std::string>> problemsWith(
      const std::vector<std::string>& paths) const override;

 private:
  using Reply = InspectorConnection::Reply;

  std::optional<Reply> ask(InspectionQuestion question,
                           std::chrono::milliseconds patience = kPatience) const;
  // The answer, if it is positive.
  std::optional<InspectionAnswer> find(InspectionQuestion question) const;

  const std::unique_ptr<InspectorConnection> connection_;
  mutable bool isAnswering_ = true;
  // The same while the machine runs.
  mutable std::optional<CommonView> commonView_;
};

}  // namespace ostravel::linuxplatform
