#pragma once

#include <map>
#include <string>

namespace ostravel::macos::test {

// How many Objective-C objects of each class there are, of all classes. Counting starts with the
// first call.
using ObjectCensus = std::map<std::string, int>;
ObjectCensus takeCensus();

// Classes of which there are at least that many more in the later census, with the differences;
// empty for none.
std::string growth(const ObjectCensus& earlier, const ObjectCensus& later, int least);

}  // namespace ostravel::macos::test
