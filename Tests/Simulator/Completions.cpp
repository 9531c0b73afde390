#include "Tests/Simulator/Completions.h"

namespace ostravel::simulator {

namespace {

using platform::Data;
using platform::OptionalError;

// The longest that a result may be late.
constexpr std::uint64_t kLatestResultMilliseconds = 6000;

}  // namespace

platform::ErrorCompletion observed(World& world, const std::shared_ptr<Strand>& strand,
                                   HistoryKind kind, std::uint32_t flow,
                                   platform::ErrorCompletion completion) {
  return [&world, strand, kind, flow, completion = std::move(completion)](OptionalError error) {
    strand->run(flow, [&world, kind, flow, completion, error = std::move(error)] {
      world.record({.kind = kind, .flow = flow, .error = pointerTo(error)});
      completion(error);
      if (kind == HistoryKind::connectionWriteDone && world.strikesCanary(Canary::completesTwice)) {
        world.record({.kind = kind, .flow = flow, .error = pointerTo(error)});
        completion(error);
      }
    });
  };
}

platform::ReadCompletion observed(World& world, const std::shared_ptr<Strand>& strand,
                                  HistoryKind kind, std::uint32_t flow,
                                  platform::ReadCompletion completion) {
  return [&world, strand, kind, flow, completion = std::move(completion)](std::optional<Data> data,
                                                                          OptionalError error) {
    auto deliver = [&world, kind, flow, completion, data = std::move(data),
                    error = std::move(error)]() mutable {
      world.record({.kind = kind,
                    .flow = flow,
                    .bytes = data ? viewOf(*data) : std::string_view(),
                    .error = pointerTo(error)});
      completion(std::move(data), std::move(error));
    };
    if (!world.strikes(Fault::lateResults, 8)) {
      strand->run(flow, std::move(deliver));
      return;
    }
    const std::chrono::milliseconds delay(world.below(kLatestResultMilliseconds));
    world.queue().postAfter(
        delay, [strand, flow, shared = std::make_shared<decltype(deliver)>(std::move(deliver))] {
          strand->run(flow, [shared] { (*shared)(); });
        });
  };
}

}  // namespace ostravel::simulator
