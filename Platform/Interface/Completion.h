#pragma once

#include <functional>
#include <optional>

#include "Platform/Interface/Data.h"
#include "Platform/Interface/Error.h"

namespace ostravel::platform {

// What an operation calls when it is done: exactly once, and never inside the call that started the
// operation. Destroying the object that was asked cancels the operation: its completion still runs,
// with an error, or with the result of an operation that was done by then. So a completion holds
// weakly what it may outlive. Only a platform that has been shut down runs none.

// Absent error: success.
using ErrorCompletion = std::function<void(OptionalError)>;

// Absent or empty data without an error: the end of the stream. An error excludes data.
using ReadCompletion = std::function<void(std::optional<Data>, OptionalError)>;

}  // namespace ostravel::platform
