#include "Tests/Extension/Support/ScriptedConnection.h"

#include <utility>

#include "Tests/Extension/Support/Bytes.h"

namespace ostravel::test {

void ScriptedConnection::completeRead(std::optional<std::string_view> bytes,
                                      platform::OptionalError error) {
  std::optional<platform::Data> data;
  if (bytes) {
    data = platform::Data::copyOf(*bytes);
  }
  std::exchange(read_, nullptr)(std::move(data), std::move(error));
}

void ScriptedConnection::completeWrite(platform::OptionalError error) {
  std::exchange(write_, nullptr)(std::move(error));
}

void ScriptedConnection::addObserver(std::weak_ptr<platform::KeyValueObserver> /*observer*/,
                                     std::string_view keyPath) {
  calls_.push_back("addObserver " + std::string(keyPath));
}

void ScriptedConnection::removeObserver(platform::KeyValueObserver& /*observer*/,
                                        std::string_view keyPath) {
  calls_.push_back("removeObserver " + std::string(keyPath));
}

void ScriptedConnection::read(std::size_t minimum, std::size_t maximum,
                              platform::ReadCompletion completion) {
  calls_.push_back("read " + std::to_string(minimum) + " " + std::to_string(maximum));
  read_ = std::move(completion);
}

void ScriptedConnection::write(platform::Data data, platform::ErrorCompletion completion) {
  calls_.push_back("write " + std::to_string(data.size()));
  lastWritten_ = textOf(data.bytes());
  write_ = std::move(completion);
}

void ScriptedConnection::cancel() {
  calls_.emplace_back("cancel");
}

}  // namespace ostravel::test
