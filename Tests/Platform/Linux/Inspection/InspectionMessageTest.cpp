#include "Platform/Linux/Inspection/InspectionMessage.h"

#include <gtest/gtest.h>

#include <string>

namespace ostravel::linuxplatform {
namespace {

Process exampleProcess() {
  Process process;
  process.pid = 4711;
  process.stamp = {.startTime = 1, .stackStart = 2, .uid = 3, .realUser = 4};
  process.executable = "/usr/bin/pro\xff\0gram";
  process.executableFile = FileIdentity{5, 6};
  process.isExecutableGenuine = true;
  process.isExecutableSettled = true;
  process.controlGroup = "/system.slice/cups.service/worker";
  process.serviceGroup = "/system.slice/cups.service";
  process.executableLink = "/usr/bin/program (deleted)";
  process.mountGeneration = 7;
  return process;
}

InspectionQuestion exampleQuestion() {
  return {.kind = InspectionQuestion::Kind::search,
          .number = 42,
          .process = exampleProcess(),
          .file = FileIdentity{8, 9},
          .search = {.number = 10, .inode = 11, .first = {12, 13}, .preferredUser = 14},
          .candidate = 15,
          .work = std::chrono::milliseconds(16),
          .longest = std::chrono::milliseconds(17),
          .path = "/opt/tool"};
}

InspectionAnswer exampleAnswer() {
  return {.number = 42,
          .isPositive = true,
          .work = std::chrono::microseconds(18),
          .process = exampleProcess(),
          .step = {.result = HolderSearchStep::Result::found, .holder = 19},
          .view = {.root = {20, 21}, .mountNamespace = 22},
          .text = "Editor.AppImage"};
}

TEST(InspectionMessage, AQuestionArrivesAsItWas) {
  const auto sent = exampleQuestion();
  const auto received = decodeInspectionQuestion(encode(sent));
  ASSERT_TRUE(received);
  EXPECT_EQ(received->kind, sent.kind);
  EXPECT_EQ(received->number, sent.number);
  EXPECT_EQ(received->process, sent.process);
  EXPECT_EQ(received->file, sent.file);
  EXPECT_EQ(received->search, sent.search);
  EXPECT_EQ(received->candidate, sent.candidate);
  EXPECT_EQ(received->work, sent.work);
  EXPECT_EQ(received->longest, sent.longest);
  EXPECT_EQ(received->path, sent.path);
}

TEST(InspectionMessage, AnAnswerArrivesAsItWas) {
  const auto sent = exampleAnswer();
  const auto received = decodeInspectionAnswer(encode(sent));
  ASSERT_TRUE(received);
  EXPECT_EQ(received->number, sent.number);
  EXPECT_EQ(received->isPositive, sent.isPositive);
  EXPECT_EQ(received->work, sent.work);
  EXPECT_EQ(received->process, sent.process);
  EXPECT_EQ(received->step.result, sent.step.result);
  EXPECT_EQ(received->step.holder, sent.step.holder);
  EXPECT_EQ(received->view.root, sent.view.root);
  EXPECT_EQ(received->view.mountNamespace, sent.view.mountNamespace);
  EXPECT_EQ(received->text, sent.text);
}

TEST(InspectionMessage, APartOfAMessageIsInvalid) {
  const std::string question = encode(exampleQuestion());
  const std::string answer = encode(exampleAnswer());
  for (std::size_t size = 0; size < question.size(); ++size) {
    EXPECT_FALSE(decodeInspectionQuestion(question.substr(0, size))) << size;
  }
  for (std::size_t size = 0; size < answer.size(); ++size) {
    EXPECT_FALSE(decodeInspectionAnswer(answer.substr(0, size))) << size;
  }
}

TEST(InspectionMessage, BytesAfterAMessageAreInvalid) {
  EXPECT_FALSE(decodeInspectionQuestion(encode(exampleQuestion()) + '\0'));
  EXPECT_FALSE(decodeInspectionAnswer(encode(exampleAnswer()) + '\0'));
}

TEST(InspectionMessage, AnotherVersionIsInvalid) {
  std::string question = encode(exampleQuestion());
  ++question.front();
  EXPECT_FALSE(decodeInspectionQuestion(question));
}

TEST(InspectionMessage, AnUnknownKindIsInvalid) {
  std::string question = encode(exampleQuestion());
  constexpr std::size_t kKind = sizeof kInspectionVersion;
  for (const char kind : {'\0', '\x0d', '\xff'}) {
    question[kKind] = kind;
    EXPECT_FALSE(decodeInspectionQuestion(question)) << int{kind};
  }
}

TEST(InspectionMessage, ChangedBytesAreHarmless) {
  const std::string question = encode(exampleQuestion());
  const std::string answer = encode(exampleAnswer());
  for (const char byte : {'\0', '\x7f', '\xff'}) {
    for (std::size_t place = 0; place < question.size(); ++place) {
      std::string damaged = question;
      damaged[place] = byte;
      static_cast<void>(decodeInspectionQuestion(damaged));
    }
    for (std::size_t place = 0; place < answer.size(); ++place) {
      std::string damaged = answer;
      damaged[place] = byte;
      static_cast<void>(decodeInspectionAnswer(damaged));
    }
  }
}

TEST(InspectionMessage, TheLongestMessageFits) {
  InspectionQuestion question = exampleQuestion();
  const std::string path(100'000, 'x');
  question.path = path;
  question.process.executable = path;
  question.process.executableLink = path;
  question.process.controlGroup = path;
  question.process.serviceGroup = path;
  question.search.first.assign(1000, 1);
  const std::string message = encode(question);
  EXPECT_LE(message.size(), kMaximumInspectionMessage);
  EXPECT_TRUE(decodeInspectionQuestion(message));
}

}  // namespace
}  // namespace ostravel::linuxplatform
