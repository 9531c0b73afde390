#pragma once

#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

namespace ostravel::macos::test {

// An autorelease pool around each test, as the system has one around each of its calls.
class PoolTest : public ::testing::Test {
 protected:
  ~PoolTest() override { [pool_ release]; }

 private:
  NSAutoreleasePool* const pool_ = [[NSAutoreleasePool alloc] init];
};

}  // namespace ostravel::macos::test
