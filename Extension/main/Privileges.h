#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

// The permissions of this process on which its functions depend (capabilities(7)):
//
//   CAP_NET_ADMIN                    rules, the queue, packet marks; the recording of connects
//   CAP_SYS_PTRACE                   the programs of other users' processes \ unless an inspector
//   CAP_DAC_READ_SEARCH              the sockets of other users' processes  / looks for it
//   CAP_BPF, CAP_PERFMON             the recording of connects
//   CAP_SYS_NICE                     the guardian's real-time priority
//
// Optional: CAP_DAC_OVERRIDE for a monitoring socket of another user, CAP_SYS_RESOURCE for pipes
// that exceed the limit of users.
//
// A snapshot.
class Privileges {
 public:
  // Who looks at other users' processes.
  enum class Inspection { own, byInspector };

  static Privileges ofThisProcess();

  // Drops every capability that the extension does not use, and the ability to gain any by
  // executing a program. Called before other threads exist, which inherit the remaining ones.
  static platform::OptionalError giveUpUnused(Inspection inspection);
  // The same for the inspector.
  static platform::OptionalError giveUpAllButInspection();

  // capabilities: a bit for each. seesProcesses: true if the programs and sockets of other
  // processes are visible without them, as in a container in which all belong to one user.
  // isPreferred: true if the process has a higher priority than usual (nice(1)).
  Privileges(std::uint64_t capabilities, bool seesProcesses, bool isPreferred = false)
      : capabilities_(capabilities), seesProcesses_(seesProcesses), isPreferred_(isPreferred) {}

  // Absent if this process can do its work, perhaps with losses. The error's sentence names
  // everything that is missing and says what to do.
  platform::OptionalError obstacle(Inspection inspection = Inspection::own) const;
  // The same for the inspector.
  platform::OptionalError inspectionObstacle() const;

  // One sentence for each missing permission, with its consequence.
  std::vector<std::string> losses(Inspection inspection = Inspection::own) const;

 private:
  bool has(unsigned capability) const;
  bool canReadEverything() const;
  // A list, empty if nothing is missing.
  std::string missingForInspection() const;
  bool canTrace() const;

  std::uint64_t capabilities_;
  bool seesProcesses_;
  bool isPreferred_;
};

}  // namespace ostravel::linuxplatform
