// Makes the leak search of AddressSanitizer cover everything that a test allocates.
//
// The Objective-C runtime and the Foundation set up every class once, and keep what they allocate
// for that out of the search's sight; it would be reported in every program. So the search begins
// when all classes are set up: earlier allocations are ignored, later ones must be freed.

#if defined(__has_feature)
#if __has_feature(address_sanitizer)

#import <Foundation/Foundation.h>
#include <gtest/gtest.h>
#import <objc/runtime.h>
#include <sanitizer/lsan_interface.h>

#include <cstddef>
#include <vector>

#import "Tests/StandInMac/StandInNetworkExtension.h"

namespace {

// Before the constructors of all libraries, which register their classes.
__attribute__((section(".preinit_array"),
               used)) void (*const beforeAnyConstructor)() = __lsan_disable;

void setUpEveryClass() {
  std::vector<Class> classes(static_cast<std::size_t>(objc_getClassList(nullptr, 0)));
  const int count = objc_getClassList(classes.data(), static_cast<int>(classes.size()));
  classes.resize(static_cast<std::size_t>(count));
  for (const Class type : classes) {
    // The first message to a class sets it up.
    [type class];
  }
}

// Its objects get another class, which is made when the first of them is observed.
void observeConnection() {
  NWTCPConnection* const connection = ostravel::standin::makeScriptedConnection();
  NSObject* const observer = [[[NSObject alloc] init] autorelease];
  [connection addObserver:observer forKeyPath:@"state" options:0 context:nullptr];
  [connection removeObserver:observer forKeyPath:@"state"];
}

class LeakSearch final : public testing::Environment {
 public:
  void SetUp() override {
    @autoreleasepool {
      setUpEveryClass();
      observeConnection();
    }
    __lsan_enable();
  }
};

const testing::Environment* const leakSearch = testing::AddGlobalTestEnvironment(new LeakSearch());

}  // namespace

#endif
#endif
