#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

// What this process may do, as far as its functions depend on it (capabilities(7)):
//
//   CAP_NET_ADMIN                    rules, the queue, packet marks; the recording of connects
//   CAP_SYS_PTRACE                   the programs of other users' processes
//   CAP_DAC_READ_SEARCH              the sockets of other users' processes
//   CAP_BPF, CAP_PERFMON             the recording of connects
//   CAP_SYS_NICE                     the guardian's real-time priority
//
// A snapshot.
class Privileges {
 public:
  static Privileges ofThisProcess();

  // capabilities: a bit for each. seesProcesses: whether the programs and sockets of other
  // processes are visible all the same, as in a container in which all belong to one user.
  Privileges(std::uint64_t capabilities, bool seesProcesses)
      : capabilities_(capabilities), seesProcesses_(seesProcesses) {}

  // Absent when this process can do its work, perhaps with losses. The error's sentence names
  // everything that is missing, and says what to do.
  platform::OptionalError obstacle() const;

  // One sentence for each permission that is missing, with what that costs.
  std::vector<std::string> losses() const;

 private:
  bool has(unsigned capability) const;
  bool canReadEverything() const;
  bool canTrace() const;

  std::uint64_t capabilities_;
  bool seesProcesses_;
};

}  // namespace ostravel::linuxplatform
