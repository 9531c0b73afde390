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
#include "Platform/Linux/Processes/SystemUsers.h"

namespace ostravel::linuxplatform {

// Decides whose flows the local proxy may carry. What listens on its port is a proxy once it has
// answered one CONNECT as a proxy does. It may carry everybody's flows when all who have a hand in
// its listening socket are root, system users or users whom the administrator has named; otherwise
// only the flows of its own user.
//
// A hand in it have the user who made the socket, the process that was found to hold it, and the
// process that accepted the trial. A socket that root has made and a service manager has handed to
// an unprivileged service therefore is the service's: that is who reads what is sent to it. The
// other way round, a process of root that was handed a user's socket is not trusted either, since
// the user may have kept it.
//
// Used by the verdict thread alone. Never waits, but for a lock that is held to copy a few words.
class ProxyTrust {
 public:
  using Warn = std::function<void(const std::string&)>;

  // named: users whose proxy is everybody's. proxy outlives this object. warn takes a sentence for
  // people, at most one for every listening socket and thing that is wrong with it.
  ProxyTrust(ProxyProcess& proxy, std::uint16_t port, const std::vector<uid_t>& named, Warn warn);

  // Whether the proxy may carry flows of this user, absent if nobody knows whose they are. Valid
  // after a refresh of the proxy that returned State::known. The first time that this is true for a
  // listening socket, the proxy has got all its parts.
  bool holdsFor(std::optional<uid_t> user);

  // One sentence for people about a proxy that has passed its trial; once.
  std::optional<std::string> takeNews() { return std::exchange(news_, std::nullopt); }

  // The following are valid when holdsFor() has returned true for the same refresh.

  // Whether the process that dials out for the proxy has been found.
  bool knowsDialler() const { return knowsDialler_; }
  // Whether a process of this user could dial out for a proxy whose dialler has not been found.
  bool mayDial(uid_t user) const;

 private:
  void forget();
  bool hasPassedTrial();
  void takeParts(ProxyTrialThread::Result result);
  bool mayServe(uid_t owner, std::optional<uid_t> user) const;
  void warnAboutAnswer(const ProxyTrialThread::Result& result);
  void warnAboutOwners();
  std::string ownerText(const std::string& user) const;

  ProxyProcess& proxy_;
  const std::uint16_t port_;
  const SystemUsers systemUsers_;
  const std::set<uid_t> named_;
  const Warn warn_;
  // The listening socket that the following are about.
  std::uint64_t listener_ = 0;
  bool isNoProxy_ = false;
  bool hasPassed_ = false;
  bool knowsDialler_ = false;
  // All who have a hand in the socket, with their names.
  std::map<uid_t, std::string> owners_;
  bool hasWarnedAboutAnswer_ = false;
  bool hasWarnedAboutOwners_ = false;
  std::optional<std::string> news_;
  ProxyTrialThread trial_;
};

}  // namespace ostravel::linuxplatform
