#include "Platform/Linux/Inspection/LateAnswers.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "Tests/Platform/Linux/Support/Helper.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using Kind = InspectionQuestion::Kind;

InspectionQuestion questionAbout(pid_t pid, ino_t file = 1, Kind kind = Kind::find) {
  InspectionQuestion question{.kind = kind};
  question.process.pid = pid;
  question.file = FileIdentity{.device = 1, .inode = file};
  return question;
}

InspectionAnswer answerNaming(const std::string& executable) {
  InspectionAnswer answer{.isPositive = true};
  answer.process.executable = executable;
  return answer;
}

class LateAnswersTest : public ::testing::Test {
 protected:
  void keep(const InspectionQuestion& question, InspectionAnswer answer) {
    auto subject = LateAnswers::subjectOf(question);
    ASSERT_TRUE(subject);
    late_.keep(*std::move(subject), std::move(answer));
  }

  std::string executableFrom(const InspectionQuestion& question) {
    const auto answer = late_.take(question);
    return answer ? answer->process.executable : "nothing";
  }

  LateAnswers late_;
};

TEST_F(LateAnswersTest, AnswersTheSameQuestionOnce) {
  auto question = questionAbout(::getpid());
  question.number = 1;
  keep(question, answerNaming("/one"));
  question.number = 2;
  EXPECT_EQ(executableFrom(question), "/one");
  EXPECT_EQ(executableFrom(question), "nothing");
}

TEST_F(LateAnswersTest, AnotherQuestionGetsNoAnswer) {
  const Helper helper;
  keep(questionAbout(::getpid()), answerNaming("/one"));
  EXPECT_EQ(executableFrom(questionAbout(helper.pid())), "nothing");
  EXPECT_EQ(executableFrom(questionAbout(::getpid(), 2)), "nothing");
  EXPECT_EQ(executableFrom(questionAbout(::getpid(), 1, Kind::appImage)), "nothing");
  auto later = questionAbout(::getpid());
  later.process.stamp.startTime = 1;
  EXPECT_EQ(executableFrom(later), "nothing");
}

TEST_F(LateAnswersTest, WhatMayChangeIsNotKept) {
  for (const Kind kind : {Kind::stamp, Kind::refreshExecutable, Kind::refreshControlGroup,
                          Kind::life, Kind::holder, Kind::search}) {
    EXPECT_FALSE(LateAnswers::subjectOf(questionAbout(::getpid(), 1, kind)));
  }
  auto withoutProgram = questionAbout(::getpid());
  withoutProgram.file.reset();
  EXPECT_FALSE(LateAnswers::subjectOf(withoutProgram));
}

TEST_F(LateAnswersTest, ForgetsAProcessThatHasEnded) {
  Helper helper;
  const auto question = questionAbout(helper.pid());
  keep(question, answerNaming("/one"));
  auto tooLate = LateAnswers::subjectOf(question);
  ASSERT_TRUE(tooLate);
  helper.kill();
  // Its number may belong to another process now.
  EXPECT_EQ(executableFrom(question), "nothing");
  late_.keep(*std::move(tooLate), answerNaming("/one"));
  EXPECT_EQ(late_.size(), 0U);
  EXPECT_FALSE(LateAnswers::subjectOf(question));
}

TEST_F(LateAnswersTest, EndedProcessesTakeNoPlace) {
  Helper helper;
  keep(questionAbout(helper.pid()), answerNaming("/one"));
  helper.kill();
  keep(questionAbout(::getpid()), answerNaming("/two"));
  EXPECT_EQ(late_.size(), 1U);
}

TEST_F(LateAnswersTest, WhatIsNotAboutAProcessIsKept) {
  const InspectionQuestion question{.kind = Kind::commonView};
  keep(question, answerNaming("/one"));
  EXPECT_EQ(executableFrom(question), "/one");
}

TEST_F(LateAnswersTest, NothingFoundIsNotKept) {
  keep(questionAbout(::getpid()), InspectionAnswer{.isPositive = false});
  EXPECT_EQ(late_.size(), 0U);
}

TEST_F(LateAnswersTest, NothingInheritedIsKept) {
  const auto question = questionAbout(::getpid(), 1, Kind::inheritance);
  keep(question, InspectionAnswer{.isPositive = false});
  const auto answer = late_.take(question);
  ASSERT_TRUE(answer);
  EXPECT_FALSE(answer->isPositive);
}

TEST_F(LateAnswersTest, TheNewestAnswerToAQuestionHolds) {
  keep(questionAbout(::getpid()), answerNaming("/one"));
  keep(questionAbout(::getpid()), answerNaming("/two"));
  EXPECT_EQ(late_.size(), 1U);
  EXPECT_EQ(executableFrom(questionAbout(::getpid())), "/two");
}

TEST_F(LateAnswersTest, KeepsTheNewestOnly) {
  for (ino_t file = 0; file <= LateAnswers::kCapacity; ++file) {
    keep(questionAbout(::getpid(), file), answerNaming("/" + std::to_string(file)));
  }
  EXPECT_EQ(late_.size(), LateAnswers::kCapacity);
  EXPECT_EQ(executableFrom(questionAbout(::getpid(), 0)), "nothing");
  EXPECT_EQ(executableFrom(questionAbout(::getpid(), 1)), "/1");
}

}  // namespace
}  // namespace ostravel::linuxplatform
