#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Linux/Processes/FileLookup.h"
#include "Platform/Linux/Processes/ProcessTable.h"
#include "Platform/Linux/Processes/SocketHolderSearch.h"

namespace ostravel::linuxplatform {

// Reads /proc (proc(5)). Reads only files that never block on a file system or on the process: not
// cmdline, environ or maps. To inspect processes of other users it needs CAP_SYS_PTRACE, and for
// their files and descriptors CAP_DAC_READ_SEARCH. Used by one thread.
class LocalProcessTable final : public ProcessTable {
 public:
  // allowance: charged with work that delays other flows.
  explicit LocalProcessTable(
      std::shared_ptr<SearchAllowance> allowance = std::make_shared<SearchAllowance>());
  static std::unique_ptr<ProcessTable> make() { return std::make_unique<LocalProcessTable>(); }

  using ProcessTable::find;
  using ProcessTable::holderOf;
  using ProcessTable::refreshExecutable;

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
  // A search that has not ended, and its number.
  struct OpenSearch {
    std::uint64_t number;
    SocketHolderSearch search;
  };

  void rememberHolder(pid_t pid);
  static void setControlGroup(Process& process, std::string group);
  void readExecutable(Process& process, std::optional<FileIdentity> executable) const;

  const std::unique_ptr<FileLookup> files_;
  // The holders found last, latest first; checked before all others.
  std::deque<pid_t> recentHolders_;
  std::optional<OpenSearch> openSearch_;
};

// The part of a control group's path up to the systemd service; empty if it belongs to none, or
// only to the manager of a user's session.
std::string_view serviceGroupOf(std::string_view controlGroup);

}  // namespace ostravel::linuxplatform
