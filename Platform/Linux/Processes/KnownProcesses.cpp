#include "Platform/Linux/Processes/KnownProcesses.h"

#include <utility>

namespace ostravel::linuxplatform {

KnownProcess* KnownProcesses::find(pid_t pid) {
  const auto found = positions_.find(pid);
  if (found == positions_.end()) {
    return nullptr;
  }
  processes_.splice(processes_.begin(), processes_, found->second);
  return &processes_.front();
}

KnownProcess& KnownProcesses::insert(Process process) {
  const pid_t pid = process.pid;
  erase(pid);
  if (processes_.size() >= capacity_) {
    positions_.erase(processes_.back().process.pid);
    processes_.pop_back();
  }
  KnownProcess& known = processes_.emplace_front();
  known.process = std::move(process);
  positions_.emplace(pid, processes_.begin());
  return known;
}

void KnownProcesses::erase(pid_t pid) {
  const auto found = positions_.find(pid);
  if (found != positions_.end()) {
    processes_.erase(found->second);
    positions_.erase(found);
  }
}

void KnownProcesses::forgetIdentifiers() {
  for (KnownProcess& known : processes_) {
    known.identifier.reset();
  }
}

}  // namespace ostravel::linuxplatform
