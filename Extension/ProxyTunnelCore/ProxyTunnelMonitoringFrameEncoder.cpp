#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringFrameEncoder.h"

#include <jansson.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
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

void appendBigEndian(ProxyTunnelMonitoringFrameEncoder::Frame& frame, std::uint32_t number) {
  for (const unsigned shift : {24U, 16U, 8U, 0U}) {
    frame.push_back(static_cast<std::byte>((number >> shift) & 0xFFU));
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
  Frame frame;
  const auto append = [](const char* bytes, std::size_t size, void* target) {
    auto& body = *static_cast<Frame*>(target);
    const auto* const first = reinterpret_cast<const std::byte*>(bytes);
    body.insert(body.end(), first, first + size);
    return 0;
  };
  constexpr std::size_t kPrefixSize = 4;
  Frame body;
  body.reserve(512);
  if (json_dump_callback(writer.object(), append, &body, kFlags) != 0) {
    return encodingError("The event cannot be written as JSON");
  }
  // The prefix cannot express a longer body; events are far smaller.
  if (body.size() > std::numeric_limits<std::uint32_t>::max()) {
    std::abort();
  }
  frame.reserve(kPrefixSize + body.size());
  appendBigEndian(frame, static_cast<std::uint32_t>(body.size()));
  frame.insert(frame.end(), body.begin(), body.end());
  return frame;
}

}  // namespace ostravel
