#pragma once

#include <functional>
#include <string>

namespace ostravel::linuxplatform {

// The CONNECT targets of a flow whose host name is known: by name, and by address if the proxy
// cannot resolve the name. Both are host and port.
struct ConnectByName {
  std::string named;
  std::string literal;
  std::function<void()> onUnresolvable;

  // That of the flow that this thread is serving; null if it serves none, or one without a name.
  static const ConnectByName* current();

  // Sets current() for the lifetime of the object.
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
