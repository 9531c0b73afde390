#include "Tests/macOS/StandIn/ClassSetUp.h"

#import <Foundation/Foundation.h>
#import <objc/runtime.h>

#include <cstddef>
#include <vector>

namespace ostravel::standin {

void setUpEveryClass() {
  std::vector<Class> classes(static_cast<std::size_t>(objc_getClassList(nullptr, 0)));
  const int count = objc_getClassList(classes.data(), static_cast<int>(classes.size()));
  classes.resize(static_cast<std::size_t>(count));
  @autoreleasepool {
    for (const Class type : classes) {
      [type class];
    }
  }
}

}  // namespace ostravel::standin
