#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Identity/ProxyProcess.h"
#include "Platform/Linux/Identity/ProxyTrialThread.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Platform/Linux/Processes/SystemUsers.h"

namespace ostravel::linuxplatform {

// Decides whose flows the local proxy may carry. The listener counts as a proxy once it has
// answered one CONNECT like a proxy. It may carry the flows of all users if all users who control
// its listening socket are root, system users or named by the administrator; otherwise only the
// flows of its own user.
//
// These users control the socket: its creator, the user of the process that holds it, and the user
// of the process that accepted the trial. A socket that root created and a service manager handed
// to an unprivileged service therefore counts as the service's, which reads what is sent to it.
// Conversely, a process of root that was handed a user's socket is not trusted either, since the
// user may have kept a copy.
//
// Used on the first event loop only. Never blocks, except on a lock that is held to copy a few
// words.
class ProxyTrust {
 public:
  using Warn = std::function<void(const std::string&)>;

  // named: users whose proxy may carry the flows of all users. proxy outlives this object. warn
  // receives a sentence for the log, at most one per listening socket and problem.
  ProxyTrust(ProxyProcess& proxy, std::uint16_t port, const std::vector<uid_t>& named, Warn warn,
             ProcessTableSource processes = &LocalProcessTable::make);

  // True if the proxy may carry flows of this user; empty if the flow's user is unknown. Valid
  // after a refresh of the proxy that returned State::known. When this is first true for a
  // listening socket, the proxy has all its parts.
  bool holdsFor(std::optional<uid_t> user);

  // One sentence about a proxy that has passed its trial; returned once.
  std::optional<std::string> takeNews() { return std::exchange(news_, std::nullopt); }

  // Why it may carry everybody's flows, or why not: a part of a sentence for people. Valid after
  // holdsFor() for the same refresh.
  std::string reason() const;

  // The following are valid if holdsFor() returned true for the same refresh.

  // The proxy's program, process and user, in readable form.
  const std::string& description() const { return description_; }

  // True if the process that dials out for the proxy has been found.
  bool knowsDialler() const { return knowsDialler_; }
  // True if a process of this user could dial out for a proxy whose dialler has not been found.
  bool mayDial(uid_t user) const;

 private:
  void forget();
  bool hasPassedTrial();
  void takeParts(ProxyTrialThread::Result result);
  bool mayServe(uid_t owner, std::optional<uid_t> user) const;
  void warnAboutAnswer(const ProxyTrialThread::Result& result);
  void warnAboutOwners();
  std::string ownerText(const std::string& user) const;
  std::string trustText(uid_t owner, const std::string& name) const;

  ProxyProcess& proxy_;
  const std::uint16_t port_;
  const SystemUsers systemUsers_;
  const std::set<uid_t> named_;
  const Warn warn_;
  // The listening socket to which the members below refer.
  std::uint64_t listener_ = 0;
  bool isNotProxy_ = false;
  bool hasPassed_ = false;
  bool knowsDialler_ = false;
  // All users who control the socket, with their names.
  std::map<uid_t, std::string> owners_;
  // The name of the user whose process holds it, once there was a trial, and what was answered.
  std::string userName_;
  std::string answer_;
  bool hasWarnedAboutAnswer_ = false;
  bool hasWarnedAboutOwners_ = false;
  std::string description_;
  std::optional<std::string> news_;
  ProxyTrialThread trial_;
};

}  // namespace ostravel::linuxplatform
