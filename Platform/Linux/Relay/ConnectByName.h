#pragma once

#include <functional>
#include <string>

namespace ostravel::linuxplatform {

// What the proxy will be asked for a flow that goes by its name, and what to ask for instead if the
// proxy cannot resolve it. Both are host and port.
struct ConnectByName {
  std::string named;
  std::string literal;
  std::function<void()> onUnresolvable;

  // For the flow that this thread is serving; null if there is none or if it has no name.
  static const ConnectByName* current();

  // Makes it the current one, if any, for the lifetime of the object.
  class Scope {
   public:
    // connect: null for none.
    explicit Scope(const ConnectByName* connect);
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope();

   private:
    const ConnectByName* const before_;
  };
};

}  // namespace ostravel::linuxplatform
