#pragma once

#include <string>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/FlowObserver.h"

namespace ostravel::platform {

// The application's side of one intercepted flow of any protocol, owned by the provider that takes
// it. A flow that is destroyed unclosed is left to the system if it was not opened or if the
// platform still holds its first packet; otherwise it is reset, if the platform is able to.
//
// All operations may be called from any thread. Completions of one flow and of the connection that
// was made for it never run at the same time as one another.
class AppProxyFlow {
 public:
  AppProxyFlow() = default;
  AppProxyFlow(const AppProxyFlow&) = delete;
  AppProxyFlow& operator=(const AppProxyFlow&) = delete;
  virtual ~AppProxyFlow() = default;

  // The application's identifier as the platform reports it, valid UTF-8; empty when unknown.
  virtual std::string sourceAppSigningIdentifier() const = 0;

  // Receives the decisions about the flow; lives as long as the flow. Null on platforms that keep
  // no statistics.
  virtual FlowObserver* observer() { return nullptr; }

  // Ends one direction, as seen from the provider: nothing more is read from, or written to, the
  // application. Without an error everything that a write has acknowledged still arrives and the
  // application sees an orderly end; an error reaches it as a reset. Later calls have no effect.
  //
  // A platform that still holds the flow's first packet, because nothing was read or written yet,
  // gives a flow that is closed with an error back to the system instead: the connection
  // continues as if it had never been taken. Closed without an error, such a flow is refused.
  virtual void closeRead(OptionalError error) = 0;
  virtual void closeWrite(OptionalError error) = 0;
};

}  // namespace ostravel::platform
