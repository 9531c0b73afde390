#pragma once

#include <functional>
#include <optional>

#include "Platform/Interface/Data.h"
#include "Platform/Interface/Error.h"

namespace ostravel::platform {

// What an operation calls when it is done: exactly once, never inside the call that started the
// operation, and never after the object it was asked of was destroyed.

// Absent error: success.
using ErrorCompletion = std::function<void(OptionalError)>;

// Absent or empty data without an error: the end of the stream. An error excludes data.
using ReadCompletion = std::function<void(std::optional<Data>, OptionalError)>;

}  // namespace ostravel::platform
