#pragma once

namespace ostravel::standin {

// Sets up every class that there is, which the runtime of this machine otherwise does at the first
// message to a class. On the main thread, before there is another one.
void setUpEveryClass();

}  // namespace ostravel::standin
