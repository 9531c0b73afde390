#include "Platform/Linux/Control/ControlAnswer.h"

#include <chrono>
#include <cstdlib>
#include <memory>

#include "Base/PrintableText.h"
#include "Base/UTF8.h"

namespace ostravel::linuxplatform {

namespace {

constexpr double kMicrosecondsPerMillisecond = 1000;

std::string lineOf(const JSONHandle& answer) {
  const std::unique_ptr<char, decltype(&std::free)> text(
      json_dumps(answer.get(), JSON_COMPACT | JSON_PRESERVE_ORDER), &std::free);
  return text ? std::string(text.get()) + '\n' : std::string("\n");
}

json_t* microseconds(std::chrono::microseconds duration) {
  return json_integer(duration.count());
}

void addStep(json_t* steps, const char* name, std::optional<FlowRecord::Elapsed> step) {
  if (step) {
    json_object_set_new(steps, name, microseconds(*step));
  }
}

JSONHandle stepsOf(const FlowRecord::View& flow) {
  JSONHandle steps(json_object());
  addStep(steps.get(), "decided", flow.decided);
  addStep(steps.get(), "connected", flow.connected);
  addStep(steps.get(), "established", flow.established);
  addStep(steps.get(), "ended", flow.ended);
  return steps;
}

}  // namespace

std::string answerLine(ControlRequest::Kind kind, JSONHandle result) {
  const JSONHandle answer(json_object());
  json_object_set_new(answer.get(), "version", json_integer(ControlRequest::kVersion));
  json_object_set_new(answer.get(), "ok", json_true());
  json_object_set_new(answer.get(), "request", jsonText(nameOf(kind)).release());
  json_object_set_new(answer.get(), "result", result.release());
  return lineOf(answer);
}

std::string errorLine(const ControlError& error, std::optional<ControlRequest::Kind> kind) {
  const JSONHandle answer(json_object());
  json_object_set_new(answer.get(), "version", json_integer(ControlRequest::kVersion));
  json_object_set_new(answer.get(), "ok", json_false());
  if (kind) {
    json_object_set_new(answer.get(), "request", jsonText(nameOf(*kind)).release());
  }
  JSONHandle reason(json_object());
  json_object_set_new(reason.get(), "code", jsonText(error.code).release());
  json_object_set_new(reason.get(), "message", jsonText(error.message).release());
  json_object_set_new(answer.get(), "error", reason.release());
  return lineOf(answer);
}

JSONHandle jsonText(std::string_view text) {
  if (isWellFormedUTF8(text)) {
    return JSONHandle(json_stringn(text.data(), text.size()));
  }
  const std::string printable = printableText(text);
  return JSONHandle(json_stringn(printable.data(), printable.size()));
}

JSONHandle jsonOf(const FlowRecord::View& flow) {
  JSONHandle object(json_object());
  json_t* const result = object.get();
  json_object_set_new(result, "sequence", json_integer(static_cast<json_int_t>(flow.sequence)));
  json_object_set_new(result, "time", json_real(flow.time));
  json_object_set_new(result, "protocol", json_string(flow.isUDP ? "udp" : "tcp"));
  json_object_set_new(result, "application", jsonText(flow.application).release());
  json_object_set_new(result, "destination", jsonText(flow.destination).release());
  if (!flow.host.empty()) {
    json_object_set_new(result, "host", jsonText(flow.host).release());
  }
  if (flow.user) {
    json_object_set_new(result, "user", json_integer(*flow.user));
  }
  if (flow.process) {
    json_object_set_new(result, "pid", json_integer(*flow.process));
  }
  json_object_set_new(result, "action", jsonText(nameOf(flow.action)).release());
  json_object_set_new(result, "reason", jsonText(flow.reason).release());
  json_object_set_new(result, "outcome", jsonText(flow.outcome).release());
  if (!flow.flowID.empty()) {
    json_object_set_new(result, "flow_id", jsonText(flow.flowID).release());
  }
  if (!flow.detail.empty()) {
    json_object_set_new(result, "detail", jsonText(flow.detail).release());
  }
  json_object_set_new(result, "steps_us", stepsOf(flow).release());
  if (flow.connected && flow.established) {
    const auto handshake = *flow.established - *flow.connected;
    json_object_set_new(
        result, "handshake_ms",
        json_real(static_cast<double>(handshake.count()) / kMicrosecondsPerMillisecond));
  }
  if (flow.action == FlowRecord::Action::proxied) {
    json_object_set_new(result, "bytes_sent",
                        json_integer(static_cast<json_int_t>(flow.bytesSent)));
    json_object_set_new(result, "bytes_received",
                        json_integer(static_cast<json_int_t>(flow.bytesReceived)));
  }
  json_object_set_new(result, "open", json_boolean(flow.isOpen));
  return object;
}

JSONHandle jsonOf(const std::vector<FlowRecord::View>& flows) {
  JSONHandle array(json_array());
  for (const auto& flow : flows) {
    json_array_append_new(array.get(), jsonOf(flow).release());
  }
  return array;
}

JSONHandle jsonOf(const DurationHistogram::Snapshot& histogram) {
  JSONHandle object(json_object());
  json_t* const result = object.get();
  json_object_set_new(result, "count", json_integer(static_cast<json_int_t>(histogram.count())));
  json_object_set_new(result, "sum_us", microseconds(histogram.sum()));
  const auto addPercentile = [&histogram, result](const char* name, double part) {
    if (const auto value = histogram.percentile(part)) {
      json_object_set_new(result, name, microseconds(*value));
    }
  };
  addPercentile("p50_us", 0.5);
  addPercentile("p90_us", 0.9);
  addPercentile("p99_us", 0.99);
  addPercentile("max_us", 1);
  JSONHandle buckets(json_array());
  for (const auto& bucket : histogram.buckets()) {
    JSONHandle pair(json_array());
    json_array_append_new(pair.get(), microseconds(bucket.upper));
    json_array_append_new(pair.get(), json_integer(static_cast<json_int_t>(bucket.count)));
    json_array_append_new(buckets.get(), pair.release());
  }
  json_object_set_new(result, "buckets", buckets.release());
  return object;
}

}  // namespace ostravel::linuxplatform
