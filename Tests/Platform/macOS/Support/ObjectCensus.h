#pragma once

#include <map>
#include <string>

namespace ostravel::macos::test {

// How many Objective-C objects of each class there are, of all classes. Counting starts with the
// first call.
using ObjectCensus = std::map<std::string, int>;
ObjectCensus takeCensus();

// Classes of which there are more in the later census, with the differences; empty when no object
// was left behind.
std::string growth(const ObjectCensus& earlier, const ObjectCensus& later);

}  // namespace ostravel::macos::test
