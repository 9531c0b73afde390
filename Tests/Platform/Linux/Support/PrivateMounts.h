#pragma once

#include <functional>

namespace ostravel::testing {

// Gives this process, which must be single-threaded, a private mount namespace. False if that is
// not permitted.
bool enterPrivateMounts();

// Runs body in a child process that has one. Failures there fail the test here.
void inPrivateMounts(const std::function<void()>& body);

}  // namespace ostravel::testing
