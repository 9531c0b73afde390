#pragma once

#include <memory>

// Every declared class has one place for the stand-in's state of an object. The runtime here cannot
// add instance variables behind a declaration.
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
