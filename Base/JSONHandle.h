#pragma once

#include <jansson.h>

#include <memory>

namespace ostravel {

struct JSONRelease {
  void operator()(json_t* value) const { json_decref(value); }
};

// Owns one reference to a JSON value of the library Jansson, or none.
using JSONHandle = std::unique_ptr<json_t, JSONRelease>;

}  // namespace ostravel
