#include "Tests/Contract/StreamContractTest.h"

namespace ostravel::contract {

Outcome StreamContractTest::read() {
  Outcome outcome;
  startReading(outcome.readCompletion());
  EXPECT_TRUE(waitUntil([&] { return outcome.isDone(); }));
  return outcome;
}

std::string StreamContractTest::readAll(std::size_t size) {
  std::string text;
  while (text.size() < size) {
    const auto outcome = read();
    if (outcome.lastSize() == 0) {
      break;
    }
    text += outcome.text();
  }
  return text;
}

platform::OptionalError StreamContractTest::write(const std::string& text) {
  Outcome outcome;
  startWriting(platform::Data::copyOf(text), outcome.completion());
  EXPECT_TRUE(waitUntil([&] { return outcome.isDone(); }));
  return outcome.error();
}

std::string StreamContractTest::writeAcknowledged(std::size_t size) {
  constexpr std::size_t kPiece = 16 * 1024;
  const auto bytes = patternBytes(size);
  for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
    EXPECT_FALSE(write(bytes.substr(at, kPiece)));
  }
  return bytes;
}

void StreamContractTest::startBoth(Outcome& reading, Outcome& writing) {
  startReading(reading.readCompletion());
  startWriting(platform::Data::copyOf(std::string(kLarge * 4, 'x')), writing.completion());
}

void StreamContractTest::expectSecondReadToBeRefused() {
  Outcome first;
  Outcome second;
  startReading(first.readCompletion());
  expectProgrammingError([&] { startReading(second.readCompletion()); });
}

void StreamContractTest::expectSecondWriteToBeRefused() {
  Outcome first;
  Outcome second;
  startWriting(platform::Data::copyOf(std::string(kLarge * 4, 'x')), first.completion());
  expectProgrammingError([&] { startWriting(platform::Data::copyOf("x"), second.completion()); });
}

void StreamContractTest::expectBothToHaveFailed(const Outcome& reading, const Outcome& writing) {
  ASSERT_TRUE(waitUntil([&] { return reading.isDone() && writing.isDone(); }));
  environment_->settle();
  EXPECT_TRUE(reading.error());
  EXPECT_TRUE(writing.error());
  EXPECT_EQ(reading.count(), 1);
  EXPECT_EQ(writing.count(), 1);
  EXPECT_FALSE(reading.ranInsideCall());
  EXPECT_FALSE(writing.ranInsideCall());
}

}  // namespace ostravel::contract
