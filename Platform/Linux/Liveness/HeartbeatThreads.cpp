#include "Platform/Linux/Liveness/HeartbeatThreads.h"

#include <memory>
#include <utility>

namespace ostravel::linuxplatform {

namespace {

class PingedWorker final : public WorkerPool::Client {
 public:
  explicit PingedWorker(Heartbeat::Answer answer) : answer_(std::move(answer)) {}

  void takeTurn() override { answer_(); }

 private:
  const Heartbeat::Answer answer_;
};

}  // namespace

std::vector<Heartbeat::Membership> joinHeartbeat(Heartbeat& heartbeat, EventLoopGroup& loops,
                                                 WorkerPool& workers) {
  std::vector<Heartbeat::Membership> memberships;
  memberships.reserve(loops.size() + 1);
  for (unsigned index = 0; index < loops.size(); ++index) {
    EventLoop& loop = loops.loop(index);
    memberships.push_back(heartbeat.join(
        eventLoopParticipant(index),
        [&loop](Heartbeat::Answer answer) { loop.post(std::move(answer)); }, nullptr));
  }
  memberships.push_back(heartbeat.join(
      kWorkThreadsParticipant,
      [&workers](Heartbeat::Answer answer) {
        workers.submit(std::make_shared<PingedWorker>(std::move(answer)));
      },
      nullptr));
  return memberships;
}

}  // namespace ostravel::linuxplatform
