#pragma once

#include <functional>

namespace ostravel::testing {

// Runs body in a process that sees only itself and its children in /proc, numbered from 1. Failures
// there fail the test here.
void inPrivateProcesses(const std::function<void()>& body);

}  // namespace ostravel::testing
