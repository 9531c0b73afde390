#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringFrameEncoder.h"

#include <jansson.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "Base/JSONHandle.h"

namespace ostravel {

namespace {

using platform::Error;
using CodingKey = ProxyTunnelMonitoringEvent::CodingKey;

JSONHandle makeValue(const std::string& text) {
  return JSONHandle(json_stringn(text.data(), text.size()));
}

JSONHandle makeValue(double number) {
  return JSONHandle(json_real(number));
}

// Adds members to one object until a value or a key cannot be encoded.
class ObjectWriter {
 public:
  template <typename Value>
  void write(std::string_view key, const Value& value) {
    set(key, makeValue(value));
  }

  template <typename Values>
  void writeMembers(std::string_view key, const Values& values) {
    ObjectWriter nested;
    for (const auto& [name, value] : values) {
      nested.write(name, value);
    }
    if (nested.failedKey_ && !failedKey_) {
      failedKey_ = std::string(key) + "." + *nested.failedKey_;
    }
    set(key, std::move(nested.object_));
  }

  const std::optional<std::string>& failedKey() const { return failedKey_; }
  json_t* object() const { return object_.get(); }

 private:
  // Later values are ignored after the first failure.
  void set(std::string_view key, JSONHandle value) {
    if (failedKey_) {
      return;
    }
    // Takes ownership of the value even if it fails; a null value makes it fail.
    if (json_object_setn_new(object_.get(), key.data(), key.size(), value.release()) != 0) {
      failedKey_ = std::string(key);
    }
  }

  JSONHandle object_{json_object()};
  std::optional<std::string> failedKey_;
};

void writeEvent(ObjectWriter& writer, const ProxyTunnelMonitoringEvent& event) {
  const auto key = &ProxyTunnelMonitoringEvent::rawValue;
  writer.write(key(CodingKey::messageID), event.messageID());
  writer.write(key(CodingKey::timestamp), event.timestamp());
  writer.write(key(CodingKey::loggedAt), event.loggedAt());
  writer.write(key(CodingKey::type), event.type());
  writer.write(key(CodingKey::currentSignal), event.currentSignal());
  if (event.flowID()) {
    writer.write(key(CodingKey::flowID), *event.flowID());
  }
  writer.write(key(CodingKey::component), event.component());
  writer.write(key(CodingKey::level), event.level());
  writer.write(key(CodingKey::code), event.code());
  writer.write(key(CodingKey::message), event.message());
  if (event.metrics()) {
    writer.writeMembers(key(CodingKey::metrics), *event.metrics());
  }
  if (event.context()) {
    writer.writeMembers(key(CodingKey::context), *event.context());
  }
}

Error encodingError(const std::string& description) {
  return Error{"JSONEncoding", 1, description};
}

void putBigEndian(std::span<std::byte, 4> bytes, std::uint32_t number) {
  for (std::size_t i = bytes.size(); i > 0; --i) {
    bytes[i - 1] = static_cast<std::byte>(number & 0xFFU);
    number >>= 8U;
  }
}

}  // namespace

platform::Result<ProxyTunnelMonitoringFrameEncoder::Frame>
ProxyTunnelMonitoringFrameEncoder::encode(const ProxyTunnelMonitoringEvent& event) const {
  ObjectWriter writer;
  writeEvent(writer, event);
  if (writer.failedKey()) {
    return encodingError("The value of \"" + *writer.failedKey() +
                         "\" cannot be written as JSON: a number must be finite, a text UTF-8");
  }

  constexpr std::size_t kFlags = JSON_COMPACT | JSON_ESCAPE_SLASH;
  constexpr std::size_t kPrefixSize = 4;
  // Most events fit into it; for one that does not, the size is known after the first attempt.
  Frame frame(1024);
  const auto write = [&frame, &writer] {
    return json_dumpb(writer.object(), reinterpret_cast<char*>(frame.data() + kPrefixSize),
                      frame.size() - kPrefixSize, kFlags);
  };
  const std::size_t room = frame.size() - kPrefixSize;
  const std::size_t size = write();
  if (size == 0) {
    return encodingError("The event cannot be written as JSON");
  }
  // The prefix cannot express a longer body; events are far smaller.
  if (size > std::numeric_limits<std::uint32_t>::max()) {
    std::abort();
  }
  frame.resize(kPrefixSize + size);
  if (size > room) {
    write();
  }
  putBigEndian(std::span(frame).first<kPrefixSize>(), static_cast<std::uint32_t>(size));
  return frame;
}

}  // namespace ostravel
