#include "Tests/Contract/ContractPlatforms.h"

#include <utility>

namespace ostravel::contract {

std::vector<ContractPlatform>& contractPlatforms() {
  static std::vector<ContractPlatform> platforms;
  return platforms;
}

PlatformRegistration::PlatformRegistration(
    std::string name, std::function<std::unique_ptr<ContractEnvironment>()> makeEnvironment) {
  contractPlatforms().push_back({std::move(name), std::move(makeEnvironment)});
}

}  // namespace ostravel::contract
