#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "Tests/Contract/ContractEnvironment.h"
#include "Tests/Contract/ContractPlatforms.h"

namespace ostravel::contract {

// Base of all contract tests. The environment must be destroyed after everything that a test has
// made with it, so a test keeps what it makes in local variables or in members of a derived
// fixture.
class ContractTest : public ::testing::TestWithParam<ContractPlatform> {
 protected:
  platform::Platform& platform() { return environment_->platform(); }
  bool waitUntil(const ContractEnvironment::Condition& condition) {
    return environment_->waitUntil(condition);
  }
  // The misuse of the seam is reported, however late and on whatever thread.
  void expectProgrammingError(const std::function<void()>& misuse) {
    if (environment_->throwsProgrammingErrors()) {
      EXPECT_THROW(misuse(), std::logic_error);
      return;
    }
    // In a process that is started anew, because a forked one would have a single thread.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
          misuse();
          waitUntil([] { return false; });
        },
        "programming error");
  }

  const std::unique_ptr<ContractEnvironment> environment_ = GetParam().makeEnvironment();
};

inline std::string platformName(const ::testing::TestParamInfo<ContractPlatform>& info) {
  return info.param.name;
}

// Bytes that differ from place to place, so that a lost, duplicated or moved chunk is noticed.
inline std::string patternBytes(std::size_t size, unsigned salt = 0) {
  std::string bytes;
  bytes.reserve(size + 8);
  for (unsigned i = salt; bytes.size() < size; ++i) {
    const unsigned mixed = i * 2654435761U;
    bytes.push_back(static_cast<char>(mixed >> 24U));
    bytes.push_back(static_cast<char>(mixed >> 16U));
    bytes.push_back(static_cast<char>(i));
    bytes.push_back(static_cast<char>(i >> 8U));
  }
  bytes.resize(size);
  return bytes;
}

}  // namespace ostravel::contract
