#pragma once

#include <functional>
#include <string>

namespace ostravel::linuxplatform {

// The host name under which an application has looked up a flow's address.
struct FlowName {
  std::string host;
  // If false, the name decides whether the flow is taken, but the proxy is asked for the address.
  bool isForConnect = true;
  // Called once, on the flow's loop, if the proxy cannot resolve the name; may be empty.
  std::function<void()> onUnresolvable = {};
};

}  // namespace ostravel::linuxplatform
