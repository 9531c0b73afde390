#include "Tests/StandInMac/SystemBehaviour.h"

#include <mutex>

namespace ostravel::standin {

namespace {

std::mutex lock;
SystemBehaviour current;

}  // namespace

SystemBehaviour systemBehaviour() {
  const std::lock_guard guard(lock);
  return current;
}

BehaviourScope::BehaviourScope(const SystemBehaviour& behaviour) {
  const std::lock_guard guard(lock);
  current = behaviour;
}

BehaviourScope::~BehaviourScope() {
  const std::lock_guard guard(lock);
  current = {};
}

}  // namespace ostravel::standin
