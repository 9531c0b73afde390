#pragma once

#include <memory>

// Every declared class gets one place for what the stand-in keeps of an object. The runtime here
// cannot add instance variables behind a declaration.
#define OV_OBJECT_STORAGE                  \
  {                                        \
   @public                                 \
    std::shared_ptr<void> _standInStorage; \
  }

namespace ostravel::standin {

template <typename State, typename Object>
std::shared_ptr<State> stateOf(Object* object) {
  return std::static_pointer_cast<State>(object->_standInStorage);
}

}  // namespace ostravel::standin
