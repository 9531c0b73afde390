#import "Tests/Platform/macOS/Support/ObjectCensus.h"

#import <Foundation/Foundation.h>
#import <Foundation/NSDebug.h>

namespace ostravel::macos::test {

ObjectCensus takeCensus() {
  GSDebugAllocationActive(YES);
  ObjectCensus census;
  Class* const classes = GSDebugAllocationClassList();
  for (Class* next = classes; *next != Nil; ++next) {
    census[class_getName(*next)] = GSDebugAllocationCount(*next);
  }
  NSZoneFree(NSDefaultMallocZone(), classes);
  return census;
}

std::string growth(const ObjectCensus& earlier, const ObjectCensus& later) {
  std::string text;
  for (const auto& [name, count] : later) {
    // Each thread keeps its empty pools for the next time.
    if (name == "NSAutoreleasePool") {
      continue;
    }
    const auto found = earlier.find(name);
    const int before = found != earlier.end() ? found->second : 0;
    if (count > before) {
      text += name + " +" + std::to_string(count - before) + "\n";
    }
  }
  return text;
}

}  // namespace ostravel::macos::test
