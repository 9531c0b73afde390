#pragma once

namespace ostravel::standin {

// Sets up every class that there is. The runtime of this machine does so at the first message to a
// class, and can fail when two threads send it at the same time. Costs milliseconds.
void setUpEveryClass();

}  // namespace ostravel::standin
