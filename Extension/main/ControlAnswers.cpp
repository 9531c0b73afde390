#include "Extension/main/ControlAnswers.h"

#include <unistd.h>

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <string_view>
#include <utility>

#include "Extension/main/ConfigurationFile.h"
#include "Extension/main/FlowExplanation.h"
#include "Extension/main/ProxyAddress.h"
#include "Platform/Interface/SystemLimits.h"
#include "Platform/Linux/Kernel/QueueCounters.h"

namespace ostravel {

using linuxplatform::answerLine;
using linuxplatform::ControlRequest;
using linuxplatform::errorLine;
using linuxplatform::FlowJournal;
using linuxplatform::jsonOf;
using linuxplatform::jsonText;
using linuxplatform::ProxyingState;
using Kind = ControlRequest::Kind;

namespace {

void set(json_t* object, const char* key, JSONHandle value) {
  json_object_set_new(object, key, value.release());
}
void set(json_t* object, const char* key, std::string_view text) {
  set(object, key, jsonText(text));
}
template <std::integral Number>
void set(json_t* object, const char* key, Number number) {
  json_object_set_new(object, key, json_integer(static_cast<json_int_t>(number)));
}
void set(json_t* object, const char* key, bool value) {
  json_object_set_new(object, key, json_boolean(value));
}
void set(json_t* object, const char* key, double number) {
  json_object_set_new(object, key, json_real(number));
}

std::string_view nameOf(linuxplatform::NameUse use) {
  switch (use) {
    case linuxplatform::NameUse::off:
      return "off";
    case linuxplatform::NameUse::decide:
      return "decide";
    case linuxplatform::NameUse::connect:
      break;
  }
  return "connect";
}

// While flows end, the journal's gauges change in another order than they are read.
std::int64_t notNegative(std::int64_t count) {
  return std::max<std::int64_t>(count, 0);
}

}  // namespace

ControlAnswers::ControlAnswers(Parts parts)
    : parts_(std::move(parts)), startedAt_(parts_.platform.clock().secondsSince1970()) {}

double ControlAnswers::now() const {
  return parts_.platform.clock().secondsSince1970();
}

void ControlAnswers::observe() const {
  parts_.proxying.update(facts(), now());
}

ProxyingState::Facts ControlAnswers::facts() const {
  const auto provider = parts_.provider.lock();
  const auto& path = parts_.loops.redirectPath();
  const auto handshakes = parts_.journal.lastHandshakes();
  const auto probe = provider ? provider->health().lastProbe : std::nullopt;
  return {.isIntercepting = parts_.context.isIntercepting(),
          .isStopping = !provider,
          .isGateOpen = provider ? provider->isGateOpen() : std::nullopt,
          .isProxyReachable = probe && probe->isReachable,
          .isRedirectUsable = path.isUsable(linuxplatform::AddressFamily::ipv4) ||
                              path.isUsable(linuxplatform::AddressFamily::ipv6),
          .isNearDescriptorLimit = parts_.descriptors.nearLimit(),
          .lastSuccess = handshakes.success,
          .lastTimeout = handshakes.timeout};
}

std::string ControlAnswers::answer(const ControlRequest& request) const {
  observe();
  switch (request.kind) {
    case Kind::status:
      return answerLine(request.kind, status());
    case Kind::decisions:
      return answerLine(request.kind, decisions(request));
    case Kind::tunnels:
      return answerLine(request.kind, tunnels(request));
    case Kind::explain:
      return explain(request);
    case Kind::reload:
      return reload();
  }
  return errorLine({"unknown_request", "there is no such request"}, std::nullopt);
}

JSONHandle ControlAnswers::status() const {
  JSONHandle result(json_object());
  json_t* const status = result.get();
  addProgram(status);
  addProxying(status);
  if (const auto provider = parts_.provider.lock()) {
    addHealth(status, *provider);
  }
  addFlows(status, parts_.journal.totals());
  addRelay(status);
  addServices(status);
  return result;
}

void ControlAnswers::addProgram(json_t* status) const {
  JSONHandle program(json_object());
  set(program.get(), "version", std::string_view(OSTRAVEL_VERSION));
  set(program.get(), "pid", ::getpid());
  set(program.get(), "user", ::geteuid());
  set(program.get(), "started_at", startedAt_);
  set(program.get(), "now", now());
  set(status, "program", std::move(program));
}

void ControlAnswers::addProxying(json_t* status) const {
  const auto state = parts_.proxying.state();
  JSONHandle proxying(json_object());
  set(proxying.get(), "active", state.reason == ProxyingState::Reason::proxied);
  set(proxying.get(), "reason", nameOf(state.reason));
  set(proxying.get(), "message", state.message());
  if (state.since > 0) {
    set(proxying.get(), "since", state.since);
  }
  set(status, "proxying", std::move(proxying));

  JSONHandle proxy(json_object());
  set(proxy.get(), "address", proxyAddress());
  set(proxy.get(), "serves", !state.proxy.empty());
  if (!state.proxy.empty()) {
    set(proxy.get(), "process", state.proxy);
  }
  set(proxy.get(), "reason", state.proxyText());
  set(status, "proxy", std::move(proxy));
}

void ControlAnswers::addHealth(json_t* status, PacketTunnelProvider& provider) const {
  const auto health = provider.health();
  JSONHandle gate(json_object());
  set(gate.get(), "state",
      std::string_view(!health.isGateOpen   ? "unknown"
                       : *health.isGateOpen ? "open"
                                            : "closed"));
  if (health.isGateOpen) {
    set(gate.get(), "since", health.gateSince);
  }
  if (health.lastProbe) {
    JSONHandle probe(json_object());
    set(probe.get(), "at", health.lastProbe->time);
    set(probe.get(), "reachable", health.lastProbe->isReachable);
    set(gate.get(), "last_probe", std::move(probe));
  }
  set(status, "gate", std::move(gate));

  const auto counts = provider.eventCounts();
  JSONHandle events(json_object());
  set(events.get(), "configured", counts.hasPath);
  set(events.get(), "emitted", counts.emitted);
  set(events.get(), "failed", counts.failed);
  set(events.get(), "dropped", counts.dropped);
  set(events.get(), "waiting_bytes", counts.waitingBytes);
  set(status, "events", std::move(events));
}

void ControlAnswers::addFlows(json_t* status, const FlowJournal::Totals& totals) const {
  JSONHandle flows(json_object());
  set(flows.get(), "offered", totals.examined);
  set(flows.get(), "direct", totals.direct);
  JSONHandle reasons(json_object());
  for (const auto& [reason, count] : totals.directByReason) {
    set(reasons.get(), std::string(reason).c_str(), count);
  }
  set(flows.get(), "direct_by_reason", std::move(reasons));
  set(flows.get(), "refused", totals.refused);
  set(flows.get(), "proxied", totals.proxied);
  set(flows.get(), "direct_in_the_end", totals.directInTheEnd);
  const auto inspection = parts_.context.inspect(std::nullopt);
  if (inspection) {
    set(flows.get(), "held_now", inspection->held);
  }
  set(status, "flows", std::move(flows));

  JSONHandle handshakes(json_object());
  set(handshakes.get(), "pending_now", notNegative(totals.pending));
  set(handshakes.get(), "limit", platform::limits::kMaxPendingHandshakes);
  JSONHandle outcomes(json_object());
  set(outcomes.get(), "established", totals.established);
  for (std::size_t end = 0; end < totals.ends.size(); ++end) {
    const auto name = std::string(linuxplatform::nameOf(static_cast<platform::FlowEnd>(end)));
    set(outcomes.get(), name.c_str(), totals.ends[end]);
  }
  set(handshakes.get(), "outcomes", std::move(outcomes));
  set(handshakes.get(), "time", jsonOf(totals.handshakes));
  set(status, "handshakes", std::move(handshakes));

  JSONHandle tunnels(json_object());
  set(tunnels.get(), "now", notNegative(totals.open));
  set(tunnels.get(), "total", totals.established);
  set(tunnels.get(), "bytes_sent", totals.bytesSent);
  set(tunnels.get(), "bytes_received", totals.bytesReceived);
  set(status, "tunnels", std::move(tunnels));

  JSONHandle verdicts(json_object());
  set(verdicts.get(), "time", jsonOf(totals.verdicts));
  set(status, "verdicts", std::move(verdicts));

  if (inspection) {
    JSONHandle identifiers(json_object());
    set(identifiers.get(), "registrations", inspection->registrations);
    set(identifiers.get(), "processes", inspection->processes);
    set(status, "identifiers", std::move(identifiers));
    JSONHandle names(json_object());
    set(names.get(), "use", nameOf(parts_.names));
    if (inspection->names) {
      set(names.get(), "known", *inspection->names);
    }
    set(status, "names", std::move(names));
    if (const auto counters = linuxplatform::QueueCounters::read(inspection->queue)) {
      JSONHandle queue(json_object());
      set(queue.get(), "waiting", counters->waiting);
      set(queue.get(), "dropped", counters->dropped);
      set(queue.get(), "user_dropped", counters->userDropped);
      set(status, "queue", std::move(queue));
    }
  }
}

void ControlAnswers::addRelay(json_t* status) const {
  linuxplatform::EventLoop::Counters sums;
  for (unsigned index = 0; index < parts_.loops.size(); ++index) {
    const linuxplatform::EventLoop& loop = parts_.loops.loop(index);
    sums.copiedBytes += loop.counters().copiedBytes;
    sums.splicedBytes += loop.counters().splicedBytes;
    sums.discardedBytes += loop.counters().discardedBytes;
    sums.wakeups += loop.counters().wakeups;
  }
  JSONHandle relay(json_object());
  set(relay.get(), "copied_bytes", std::uint64_t{sums.copiedBytes});
  set(relay.get(), "spliced_bytes", std::uint64_t{sums.splicedBytes});
  set(relay.get(), "discarded_bytes", std::uint64_t{sums.discardedBytes});
  set(relay.get(), "wakeups", std::uint64_t{sums.wakeups});
  set(status, "relay", std::move(relay));
}

void ControlAnswers::addServices(json_t* status) const {
  set(status, "guardian", std::string_view(parts_.guardian()));
  JSONHandle log(json_object());
  set(log.get(), "dropped_lines", parts_.platform.droppedLogLines());
  set(status, "log", std::move(log));
  JSONHandle descriptors(json_object());
  set(descriptors.get(), "open", parts_.descriptors.inUse());
  set(descriptors.get(), "limit", parts_.descriptors.limit());
  set(status, "descriptors", std::move(descriptors));
}

JSONHandle ControlAnswers::decisions(const ControlRequest& request) const {
  const double time = now();
  const auto decisions =
      parts_.journal.decisions(request.after, request.updatedAfter, request.limit);
  JSONHandle result(json_object());
  set(result.get(), "last", decisions.last);
  if (request.after) {
    set(result.get(), "missed", decisions.missed);
  }
  set(result.get(), "now", time);
  set(result.get(), "started_at", startedAt_);
  set(result.get(), "decisions", jsonOf(decisions.flows));
  return result;
}

JSONHandle ControlAnswers::tunnels(const ControlRequest& request) const {
  const auto tunnels = parts_.journal.tunnels(request.limit);
  JSONHandle result(json_object());
  set(result.get(), "count", tunnels.count);
  set(result.get(), "now", now());
  set(result.get(), "tunnels", jsonOf(tunnels.flows));
  return result;
}

std::string ControlAnswers::explain(const ControlRequest& request) const {
  const auto provider = parts_.provider.lock();
  if (!provider) {
    return errorLine({"unavailable", "the extension is ending"}, request.kind);
  }
  FlowExplanation::Question question{.host = request.host,
                                     .port = request.port,
                                     .isUDP = request.isUDP,
                                     .application = {},
                                     .applicationFrom = {}};
  if (request.pid || request.path) {
    const auto inspection = parts_.context.inspect(request.pid, request.path);
    if (!inspection) {
      return errorLine({"unavailable", "nothing is intercepted, or the event loop did not answer"},
                       request.kind);
    }
    if (!inspection->application) {
      return errorLine({"not_found", "there is no such process"}, request.kind);
    }
    question.application = inspection->application->identifier;
    question.applicationFrom = inspection->application->source;
  }
  const auto explanation = FlowExplanation::of(question, *provider, parts_.proxying.state());
  JSONHandle result(json_object());
  set(result.get(), "action", explanation.action);
  set(result.get(), "reason", explanation.reason);
  set(result.get(), "message", explanation.message);
  if (question.application) {
    set(result.get(), "application", *question.application);
    set(result.get(), "application_from", question.applicationFrom);
  }
  JSONHandle rules(json_array());
  for (const auto& rule : explanation.rules) {
    JSONHandle object(json_object());
    set(object.get(), "rule", rule.name);
    set(object.get(), "decides", rule.decides);
    set(object.get(), "message", rule.message);
    json_array_append_new(rules.get(), object.release());
  }
  set(result.get(), "rules", std::move(rules));
  return answerLine(request.kind, std::move(result));
}

std::string ControlAnswers::reload() const {
  const bool isReplaced = parts_.context.reloadRegistrations();
  const auto inspection = parts_.context.inspect(std::nullopt);
  if (!inspection) {
    return errorLine({"unavailable", "nothing is intercepted"}, Kind::reload);
  }
  const auto configuration = linuxplatform::readProviderConfiguration(parts_.configurationPath);
  std::string message = isReplaced
                            ? "The registrations of applications are replaced."
                            : "The registrations of applications cannot be read completely; those "
                              "that were in force still are. The log says what is wrong.";
  if (!configuration || *configuration != parts_.configuration) {
    message += " The provider configuration has changed; it is read when the extension starts.";
  }
  JSONHandle result(json_object());
  set(result.get(), "registrations", inspection->registrations);
  set(result.get(), "replaced", isReplaced);
  set(result.get(), "message", message);
  return answerLine(Kind::reload, std::move(result));
}

}  // namespace ostravel
