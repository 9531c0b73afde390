#pragma once

#include <gtest/gtest.h>

#include "Tests/Extension/Support/ProviderHarness.h"

namespace ostravel::test {

class ProviderTest : public testing::Test, protected ProviderHarness {};

}  // namespace ostravel::test
