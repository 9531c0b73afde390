#pragma once

#include <optional>

#include "Platform/Interface/Callback.h"
#include "Platform/Interface/Data.h"
#include "Platform/Interface/Error.h"

namespace ostravel::platform {

// Called when an operation is done: exactly once, and never inside the call that started the
// operation. Destroying the object cancels its operations: their completions still run, with an
// error, or with the result if the operation was already done. A completion therefore holds weakly
// everything that it may outlive. Only a platform that has been shut down runs none.

// Absent error: success.
using ErrorCompletion = Callback<void(OptionalError)>;

// Absent or empty data without an error: the end of the stream. An error excludes data.
using ReadCompletion = Callback<void(std::optional<Data>, OptionalError)>;

}  // namespace ostravel::platform
