#include "Tests/Extension/Support/MonitoringRecord.h"

#include <jansson.h>

#include <ostream>
#include <stdexcept>
#include <string_view>

#include "Base/JSONHandle.h"

namespace ostravel::test {

namespace {

constexpr std::size_t kPrefixSize = 4;

void require(bool condition, std::string_view what) {
  if (!condition) {
    throw std::runtime_error(std::string(what));
  }
}

std::span<const std::byte> bodyOf(std::span<const std::byte> frame) {
  require(frame.size() >= kPrefixSize, "a frame without a length");
  std::size_t length = 0;
  for (const std::byte byte : frame.first(kPrefixSize)) {
    length = length * 256 + std::to_integer<std::size_t>(byte);
  }
  require(frame.size() == kPrefixSize + length, "the length is not that of the body");
  return frame.subspan(kPrefixSize);
}

std::string text(const json_t* value, std::string_view key) {
  require(json_is_string(value), "not a text: " + std::string(key));
  return {json_string_value(value), json_string_length(value)};
}

double number(const json_t* value, std::string_view key) {
  require(json_is_number(value), "not a number: " + std::string(key));
  return json_number_value(value);
}

template <typename Read>
auto members(json_t* object, std::string_view key, Read read) {
  require(json_is_object(object), "not an object: " + std::string(key));
  std::map<std::string, decltype(read(object, key))> result;
  for (void* at = json_object_iter(object); at != nullptr; at = json_object_iter_next(object, at)) {
    const char* const name = json_object_iter_key(at);
    result.emplace(name, read(json_object_iter_value(at), name));
  }
  return result;
}

}  // namespace

MonitoringRecord parseFrame(std::span<const std::byte> frame) {
  const auto body = bodyOf(frame);
  json_error_t error;
  const JSONHandle object(json_loadb(reinterpret_cast<const char*>(body.data()), body.size(),
                                     JSON_REJECT_DUPLICATES, &error));
  require(object != nullptr && json_is_object(object.get()), "the body is not a JSON object");
  const auto get = [&object](const char* key) { return json_object_get(object.get(), key); };

  MonitoringRecord record;
  record.messageID = text(get("message_id"), "message_id");
  record.timestamp = number(get("timestamp"), "timestamp");
  record.loggedAt = text(get("logged_at"), "logged_at");
  record.type = text(get("type"), "type");
  record.signal = text(get("current_signal"), "current_signal");
  if (const json_t* const flowID = get("flow_id")) {
    record.flowID = text(flowID, "flow_id");
  }
  record.component = text(get("component"), "component");
  record.level = text(get("level"), "level");
  record.code = text(get("code"), "code");
  record.message = text(get("message"), "message");
  if (json_t* const metrics = get("metrics")) {
    record.metrics = members(metrics, "metrics", number);
  }
  if (json_t* const context = get("context")) {
    record.context = members(context, "context", text);
  }
  for (void* at = json_object_iter(object.get()); at != nullptr;
       at = json_object_iter_next(object.get(), at)) {
    record.keys.emplace(json_object_iter_key(at));
  }
  return record;
}

EventFacts factsOf(const MonitoringRecord& record) {
  return {record.signal, record.code,    record.level,  record.message,
          record.flowID, record.metrics, record.context};
}

void PrintTo(const EventFacts& facts, std::ostream* stream) {
  *stream << "{" << facts.signal << " | " << facts.code << " | " << facts.level << " | "
          << facts.message << " | flow " << facts.flowID.value_or("absent");
  if (facts.metrics) {
    *stream << " | metrics";
    for (const auto& [key, value] : *facts.metrics) {
      *stream << " " << key << "=" << value;
    }
  }
  if (facts.context) {
    *stream << " | context";
    for (const auto& [key, value] : *facts.context) {
      *stream << " " << key << "=\"" << value << "\"";
    }
  }
  *stream << "}";
}

}  // namespace ostravel::test
