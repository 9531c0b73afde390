#pragma once

#include <optional>

#include "Platform/Interface/AppProxyFlow.h"
#include "Platform/Interface/Completion.h"
#include "Platform/Interface/Data.h"
#include "Platform/Interface/HostEndpoint.h"

namespace ostravel::platform {

// A TCP stream of an application. At most one read and one write may be outstanding.
class AppProxyTCPFlow : public AppProxyFlow {
 public:
  // The destination that the application wants to connect to; absent if it is not a host and a
  // port.
  virtual std::optional<HostEndpoint> remoteEndpoint() const = 0;

  // Takes the flow over. Must succeed before the first read or write.
  virtual void open(std::optional<HostEndpoint> localEndpoint, ErrorCompletion completion) = 0;

  // Delivers what the application has sent, at least one byte, as soon as there is any.
  virtual void read(ReadCompletion completion) = 0;

  // Completes when all of data has been accepted for delivery to the application.
  virtual void write(Data data, ErrorCompletion completion) = 0;
};

}  // namespace ostravel::platform
