#pragma once

#include <functional>

namespace ostravel::testing {

// Gives this process, which must have one thread only, a view of the file system of its own, in
// which it can mount things without anybody noticing. False when that is not permitted.
bool enterPrivateMounts();

// Runs body in a child process that has one. What fails there fails here.
void inPrivateMounts(const std::function<void()>& body);

}  // namespace ostravel::testing
