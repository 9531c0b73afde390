#include "Tests/Extension/Support/ScriptedConnection.h"

#include <string>
#include <utility>

namespace ostravel::test {

void ScriptedConnection::addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                                     std::string_view keyPath) {
  note("addObserver " + std::string(keyPath));
  if (duringAddObserver) {
    duringAddObserver(*observer.lock());
  }
}

void ScriptedConnection::removeObserver(platform::KeyValueObserver& /*observer*/,
                                        std::string_view keyPath) {
  note("removeObserver " + std::string(keyPath));
}

void ScriptedConnection::read(std::size_t minimum, std::size_t maximum,
                              platform::ReadCompletion completion) {
  startRead("read " + std::to_string(minimum) + " " + std::to_string(maximum),
            std::move(completion));
}

void ScriptedConnection::write(platform::Data data, platform::ErrorCompletion completion) {
  startWrite(data, std::move(completion));
}

}  // namespace ostravel::test
