#pragma once

#include <string>

namespace ostravel::testing {

// The output of a command of the shell, such as ip(8) or nft(8). The test fails if the command
// does.
std::string outputOf(const std::string& command);

}  // namespace ostravel::testing
