// A monitoring event with any texts and numbers: encoded, framed, and read by the monitor again.

#include <cmath>
#include <cstring>
#include <string>
#include <variant>

#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Monitor/EventFrameReader.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringEvent.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringFrameEncoder.h"
#include "Tests/Fuzz/FuzzInput.h"
#include "Tests/Simulator/ProtocolModel.h"

namespace {

using ostravel::ProxyTunnelMonitoringEvent;
using ostravel::ProxyTunnelMonitoringFrameEncoder;
using ostravel::companion::EventFrameReader;
using ostravel::companion::ReceivedEvent;
using ostravel::fuzz::FuzzInput;
using ostravel::fuzz::require;
using ostravel::simulator::isUTF8;

class FixedUUID final : public ostravel::platform::UUIDSource {
 public:
  std::string randomUUID() override { return "7A1C8E62-6C8B-4E86-A5B7-0F2D6C6B9E90"; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const auto choices = input.number();
  double metric = 0.0;
  const auto bits = input.text(sizeof(metric));
  std::memcpy(&metric, bits.data(), bits.size());
  const std::string signal(input.text(input.number() % 40));
  const std::string message(input.text(input.number() % 80));
  const std::string detail(input.rest());

  FixedUUID uuids;
  ProxyTunnelMonitoringEvent::Context context{{"detail", detail}};
  const ProxyTunnelMonitoringEvent event(
      uuids, signal, (choices & 1U) != 0 ? std::optional(message) : std::nullopt, "info", "code",
      message, ProxyTunnelMonitoringEvent::Metrics{{"metric", metric}}, context, 1763271816.5,
      "2025-11-16T05:43:36Z");
  const auto encoded = ProxyTunnelMonitoringFrameEncoder().encode(event);
  const bool canBeEncoded =
      std::isfinite(metric) && isUTF8(signal) && isUTF8(message) && isUTF8(detail);
  require(static_cast<bool>(encoded) == canBeEncoded, "what can be encoded is, and nothing else");
  if (!encoded) {
    return 0;
  }

  EventFrameReader reader;
  reader.consume({reinterpret_cast<const char*>(encoded->data()), encoded->size()});
  require(reader.finish() == EventFrameReader::State::complete, "the monitor takes every frame");
  const auto received = ostravel::companion::parseReceivedEvent(reader.body());
  const auto* const again = std::get_if<ReceivedEvent>(&received);
  require(again != nullptr, "the monitor reads every event");
  require(again->signal == signal && again->message == message, "the texts are the same");
  bool hasDetail = false;
  for (const auto& [key, value] : again->details) {
    hasDetail = hasDetail || (key == "detail" && value == detail);
  }
  require(hasDetail, "the context is the same");
  return 0;
}
