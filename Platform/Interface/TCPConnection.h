#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "Platform/Interface/Completion.h"
#include "Platform/Interface/Data.h"
#include "Platform/Interface/KeyValueObserver.h"

namespace ostravel::platform {

enum class TCPConnectionState {
  invalid = 0,
  connecting = 1,
  // Tried and failed; the platform tries again by itself when conditions change.
  waiting = 2,
  connected = 3,
  // Ended by the peer or by a failure: nothing more is transferred.
  disconnected = 4,
  // The result of cancel().
  cancelled = 5,
};

// A TCP connection that the provider makes. Connecting starts when it is created.
// All operations may be called from any thread; at most one read and one write may be outstanding.
class TCPConnection : public Observable {
 public:
  virtual TCPConnectionState state() const = 0;

  // The failure that ended the connection as a whole, if any.
  virtual OptionalError error() const = 0;

  // The only observable key path is "state". Observers are held weakly, and not notified once they
  // are removed or destroyed; removing one that is not registered has no effect. A change while
  // there is no observer, such as one before the first, is reported to the next, after this call.
  virtual void addObserver(std::weak_ptr<KeyValueObserver> observer, std::string_view keyPath) = 0;
  virtual void removeObserver(KeyValueObserver& observer, std::string_view keyPath) = 0;

  // Completes as soon as minimum bytes have arrived, with at most maximum bytes.
  virtual void read(std::size_t minimum, std::size_t maximum, ReadCompletion completion) = 0;

  // Completes when all of data has been accepted for delivery to the peer.
  virtual void write(Data data, ErrorCompletion completion) = 0;

  // Ends the connection in order: what a write has acknowledged still arrives. Outstanding
  // operations complete with an error.
  virtual void cancel() = 0;
};

}  // namespace ostravel::platform
