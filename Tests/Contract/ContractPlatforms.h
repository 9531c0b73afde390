#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "Tests/Contract/ContractEnvironment.h"

namespace ostravel::contract {

// One platform that the contract tests are run for.
struct ContractPlatform {
  std::string name;
  std::function<std::unique_ptr<ContractEnvironment>()> makeEnvironment;

  // Its name in the message of a failed test.
  friend void PrintTo(const ContractPlatform& platform, std::ostream* stream) {
    *stream << platform.name;
  }
};

// All platforms that were registered in this program.
std::vector<ContractPlatform>& contractPlatforms();

// Registers a platform with one definition at namespace scope:
//
//   const PlatformRegistration kRegistration("Simulation", [] { return ...; });
class PlatformRegistration {
 public:
  PlatformRegistration(std::string name,
                       std::function<std::unique_ptr<ContractEnvironment>()> makeEnvironment);
};

}  // namespace ostravel::contract
