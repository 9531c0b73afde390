#include "Platform/Linux/Liveness/Heartbeat.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace ostravel::linuxplatform {
namespace {

constexpr auto kLoop = eventLoopParticipant(0);
constexpr auto kOtherLoop = eventLoopParticipant(1);

// Answers when it is asked to.
class Participant {
 public:
  Participant(Heartbeat& heartbeat, HeartbeatParticipants participant)
      : membership_(heartbeat.join(
            participant,
            [this](Heartbeat::Answer answer) {
              ++pings;
              lastAnswer = std::move(answer);
            },
            [this] { ++beats; })) {}

  void answer() const { (*lastAnswer)(); }
  void answerByMembership() const { membership_.answer(); }

  int pings = 0;
  int beats = 0;
  std::optional<Heartbeat::Answer> lastAnswer;

 private:
  const Heartbeat::Membership membership_;
};

class HeartbeatTest : public ::testing::Test {
 protected:
  HeartbeatRecord record_;
  Heartbeat heartbeat_{record_};
};

TEST_F(HeartbeatTest, BeatsWithoutParticipants) {
  EXPECT_TRUE(heartbeat_.check());
  EXPECT_EQ(record_.beats(), 1U);
}

TEST_F(HeartbeatTest, PingsANewParticipant) {
  const Participant loop(heartbeat_, kLoop);
  EXPECT_EQ(loop.pings, 1);
  EXPECT_EQ(loop.beats, 0);
}

TEST_F(HeartbeatTest, WaitsForTheAnswer) {
  const Participant loop(heartbeat_, kLoop);
  EXPECT_FALSE(heartbeat_.check());
  EXPECT_FALSE(heartbeat_.check());
  EXPECT_EQ(record_.beats(), 0U);
  EXPECT_EQ(loop.beats, 0);
  loop.answer();
  EXPECT_TRUE(heartbeat_.check());
  EXPECT_EQ(record_.beats(), 1U);
  EXPECT_EQ(loop.beats, 1);
}

TEST_F(HeartbeatTest, AnAnswerCountsForOneBeat) {
  const Participant loop(heartbeat_, kLoop);
  loop.answer();
  EXPECT_TRUE(heartbeat_.check());
  EXPECT_FALSE(heartbeat_.check());
  loop.answerByMembership();
  EXPECT_TRUE(heartbeat_.check());
}

TEST_F(HeartbeatTest, AtMostOnePingIsUnanswered) {
  const Participant loop(heartbeat_, kLoop);
  for (int i = 0; i < 10; ++i) {
    EXPECT_FALSE(heartbeat_.check());
  }
  EXPECT_EQ(loop.pings, 1);
  loop.answer();
  EXPECT_TRUE(heartbeat_.check());
  EXPECT_EQ(loop.pings, 2);
}

TEST_F(HeartbeatTest, WaitsForAllParticipants) {
  const Participant loop(heartbeat_, kLoop);
  const Participant otherLoop(heartbeat_, kOtherLoop);
  const Participant workers(heartbeat_, kWorkThreadsParticipant);
  loop.answer();
  workers.answer();
  EXPECT_FALSE(heartbeat_.check());
  EXPECT_EQ(record_.laggards(), kOtherLoop);
  EXPECT_EQ(loop.beats, 0);
  EXPECT_EQ(loop.pings, 1);
  otherLoop.answer();
  EXPECT_TRUE(heartbeat_.check());
  EXPECT_EQ(record_.laggards(), 0U);
}

TEST_F(HeartbeatTest, EveryCheckIsNoted) {
  const Participant loop(heartbeat_, kLoop);
  heartbeat_.check();
  heartbeat_.check();
  EXPECT_EQ(record_.checks(), 2U);
}

TEST_F(HeartbeatTest, DoesNotWaitForAFormerParticipant) {
  { const Participant loop(heartbeat_, kLoop); }
  EXPECT_TRUE(heartbeat_.check());
}

TEST_F(HeartbeatTest, AcceptsAnAnswerAfterTheMembershipHasEnded) {
  std::optional<Heartbeat::Answer> late;
  {
    const Participant loop(heartbeat_, kLoop);
    late = loop.lastAnswer;
  }
  (*late)();
  const Participant next(heartbeat_, kLoop);
  EXPECT_FALSE(heartbeat_.check());
}

TEST_F(HeartbeatTest, WaitsForANewParticipantFromTheBeginning) {
  const Participant loop(heartbeat_, kLoop);
  loop.answer();
  const Participant newcomer(heartbeat_, kOtherLoop);
  EXPECT_FALSE(heartbeat_.check());
  EXPECT_EQ(newcomer.beats, 0);
}

TEST_F(HeartbeatTest, ItsThreadBeatsWhileAnswersCome) {
  std::promise<void> thirdBeat;
  std::atomic<int> beats = 0;
  const auto membership = heartbeat_.join(
      kLoop, [](const Heartbeat::Answer& answer) { answer(); },
      [&] {
        if (++beats == 3) {
          thirdBeat.set_value();
        }
      });
  EXPECT_EQ(record_.phase(), HeartbeatRecord::Phase::starting);
  heartbeat_.start();
  EXPECT_EQ(record_.phase(), HeartbeatRecord::Phase::running);
  thirdBeat.get_future().wait();
  heartbeat_.stop();
  EXPECT_EQ(record_.phase(), HeartbeatRecord::Phase::stopping);
  EXPECT_GE(record_.beats(), 3U);
}

TEST_F(HeartbeatTest, StopsOnce) {
  heartbeat_.start();
  heartbeat_.stop();
  const auto beats = record_.beats();
  heartbeat_.stop();
  EXPECT_EQ(record_.beats(), beats);
}

TEST_F(HeartbeatTest, ParticipantsComeAndGoWhileItRuns) {
  heartbeat_.start();
  std::vector<std::jthread> threads;
  for (unsigned index = 0; index < 4; ++index) {
    threads.emplace_back([this, index] {
      for (int i = 0; i < 1000; ++i) {
        const auto membership = heartbeat_.join(
            eventLoopParticipant(index), [](const Heartbeat::Answer& answer) { answer(); },
            nullptr);
      }
    });
  }
  threads.clear();
}

TEST(HeartbeatParticipantsTest, ParticipantsHaveNames) {
  EXPECT_EQ(participantNames(0), "");
  EXPECT_EQ(participantNames(eventLoopParticipant(1)), "event loop 1");
  EXPECT_EQ(
      participantNames(kWorkThreadsParticipant | kLoop |
                       eventLoopParticipant(kMaximumEventLoops - 1)),
      "event loop 0, event loop " + std::to_string(kMaximumEventLoops - 1) + ", the work threads");
}

}  // namespace
}  // namespace ostravel::linuxplatform
