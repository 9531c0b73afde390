#pragma once

#include <functional>

namespace ostravel::testing {

// Runs body in a child process, which may therefore enter namespaces or drop its permissions.
// Failures there, fatal ones too, fail the test here.
void inChildProcess(const std::function<void()>& body);

// The same as an ordinary user.
void asOrdinaryUser(const std::function<void()>& body);

// The same as root with no capability (capabilities(7)), or with one.
void withoutCapabilities(const std::function<void()>& body);
void withOnlyCapability(unsigned capability, const std::function<void()>& body);

}  // namespace ostravel::testing
