#include "Platform/Linux/Relay/ConnectByName.h"

#include <utility>

namespace ostravel::linuxplatform {

namespace {

thread_local const ConnectByName* currentConnect = nullptr;

}  // namespace

const ConnectByName* ConnectByName::current() {
  return currentConnect;
}

ConnectByName::Scope::Scope(const ConnectByName* connect)
    : before_(std::exchange(currentConnect, connect)) {}

ConnectByName::Scope::~Scope() {
  currentConnect = before_;
}

}  // namespace ostravel::linuxplatform
