#include "Platform/Linux/Names/OpenQuestions.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "Tests/Platform/Linux/Names/Support/MessageBuilder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using testing::addressOf;

constexpr uid_t kUser = 1000;

FlowTuple tupleFrom(std::uint16_t port, const std::string& server = "192.0.2.53") {
  return {TransportProtocol::udp, addressOf("198.51.100.1", port), addressOf(server, 53)};
}

FlowTuple answerTo(const FlowTuple& tuple) {
  return {tuple.protocol, tuple.destination, tuple.source};
}

class OpenQuestionsTest : public ::testing::Test {
 protected:
  std::uint64_t ask(const FlowTuple& tuple, std::uint16_t id, uid_t user = kUser,
                    const std::string& name = "www.example") {
    return questions_.add({.question = {id, name, AddressFamily::ipv4},
                           .user = user,
                           .tuple = tuple,
                           .outputInterface = 0,
                           .number = 0,
                           .asker = std::nullopt},
                          now_);
  }
  bool isOpen(const FlowTuple& tuple, std::uint16_t id) {
    return questions_.find(id, answerTo(tuple), now_) != nullptr;
  }

  OpenQuestions questions_;
  OpenQuestions::Clock::time_point now_{1h};
};

TEST_F(OpenQuestionsTest, AnAnswerMustHaveTheNumberTheServerAndTheSocket) {
  const FlowTuple tuple = tupleFrom(40'000);
  ASSERT_NE(ask(tuple, 7), 0U);
  EXPECT_TRUE(isOpen(tuple, 7));
  EXPECT_FALSE(isOpen(tuple, 8));
  EXPECT_FALSE(isOpen(tupleFrom(40'001), 7));
  EXPECT_FALSE(isOpen(tupleFrom(40'000, "192.0.2.54"), 7));
  FlowTuple overTCP = tuple;
  overTCP.protocol = TransportProtocol::tcp;
  EXPECT_FALSE(isOpen(overTCP, 7));
}

TEST_F(OpenQuestionsTest, AClosedQuestionHasNoAnswer) {
  const auto number = ask(tupleFrom(40'000), 7);
  questions_.close(number);
  questions_.close(number);
  EXPECT_FALSE(isOpen(tupleFrom(40'000), 7));
  EXPECT_EQ(questions_.find(number), nullptr);
  EXPECT_EQ(questions_.size(), 0U);
}

TEST_F(OpenQuestionsTest, ARepetitionIsTheSameQuestion) {
  ASSERT_NE(ask(tupleFrom(40'000), 7), 0U);
  EXPECT_EQ(ask(tupleFrom(40'000), 7), 0U);
  EXPECT_EQ(questions_.size(), 1U);
}

TEST_F(OpenQuestionsTest, AnotherQuestionWithTheSameNumberReplacesIt) {
  ASSERT_NE(ask(tupleFrom(40'000), 7), 0U);
  ASSERT_NE(ask(tupleFrom(40'000), 7, kUser, "other.example"), 0U);
  EXPECT_EQ(questions_.find(7, answerTo(tupleFrom(40'000)), now_)->question.name, "other.example");
  EXPECT_EQ(questions_.size(), 1U);
}

TEST_F(OpenQuestionsTest, QuestionsExpire) {
  ask(tupleFrom(40'000), 7);
  now_ += OpenQuestions::kLifetime - 1ns;
  EXPECT_TRUE(isOpen(tupleFrom(40'000), 7));
  now_ += 1ns;
  EXPECT_FALSE(isOpen(tupleFrom(40'000), 7));
}

TEST_F(OpenQuestionsTest, AUsersManyQuestionsDoNotDisplaceThoseOfOthers) {
  std::uint16_t id = 0;
  for (std::size_t count = 0; count < OpenQuestions::kPerUser; ++count) {
    ASSERT_NE(ask(tupleFrom(40'000), id++), 0U);
  }
  EXPECT_EQ(ask(tupleFrom(40'000), id), 0U);
  EXPECT_NE(ask(tupleFrom(40'000), id, kUser + 1), 0U);
  now_ += OpenQuestions::kLifetime;
  EXPECT_NE(ask(tupleFrom(40'000), id), 0U);
}

TEST_F(OpenQuestionsTest, ThereIsALimitForAll) {
  std::size_t count = 0;
  for (uid_t user = 0; user < 100; ++user) {
    for (std::uint16_t id = 0; id < 100; ++id) {
      count += ask(tupleFrom(static_cast<std::uint16_t>(user + 1)), id, user) != 0 ? 1 : 0;
    }
  }
  EXPECT_EQ(count, OpenQuestions::kInAll);
}

TEST_F(OpenQuestionsTest, TheAskerCanBeSetLater) {
  const auto number = ask(tupleFrom(40'000), 7);
  questions_.find(number)->asker = {.application = "/usr/bin/browser", .isForMachine = true};
  const auto* const asked = questions_.find(7, answerTo(tupleFrom(40'000)), now_);
  EXPECT_EQ(asked->asker->application, "/usr/bin/browser");
  EXPECT_EQ(asked->user, kUser);
}

}  // namespace
}  // namespace ostravel::linuxplatform
