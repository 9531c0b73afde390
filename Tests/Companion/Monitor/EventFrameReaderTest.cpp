#include "Companion/Monitor/EventFrameReader.h"

#include <gtest/gtest.h>

#include <string>

namespace ostravel::companion {
namespace {

using State = EventFrameReader::State;

std::string lengthOf(std::uint32_t length) {
  std::string bytes;
  for (const unsigned shift : {24U, 16U, 8U, 0U}) {
    bytes += static_cast<char>((length >> shift) & 0xFFU);
  }
  return bytes;
}

TEST(EventFrameReaderTest, TakesAFrameInOnePiece) {
  EventFrameReader reader;
  EXPECT_EQ(reader.consume(lengthOf(3) + "abc"), State::complete);
  EXPECT_EQ(reader.body(), "abc");
  EXPECT_EQ(reader.finish(), State::complete);
}

TEST(EventFrameReaderTest, TakesAFrameByteByByte) {
  EventFrameReader reader;
  const std::string bytes = lengthOf(300) + std::string(300, 'x');
  for (std::size_t index = 0; index + 1 < bytes.size(); ++index) {
    ASSERT_EQ(reader.consume({&bytes[index], 1}), State::incomplete);
  }
  EXPECT_EQ(reader.consume("x"), State::complete);
  EXPECT_EQ(reader.body(), std::string(300, 'x'));
}

TEST(EventFrameReaderTest, RefusesTheLengthZero) {
  EventFrameReader reader;
  EXPECT_EQ(reader.consume(lengthOf(0)), State::malformed);
  EXPECT_EQ(reader.problem(), "the length is 0");
}

TEST(EventFrameReaderTest, TakesTheLargestBodyAndNoLarger) {
  EventFrameReader largest;
  const std::string body(EventFrameReader::kLargestBody, 'x');
  EXPECT_EQ(largest.consume(lengthOf(EventFrameReader::kLargestBody) + body), State::complete);
  EventFrameReader larger;
  EXPECT_EQ(larger.consume(lengthOf(EventFrameReader::kLargestBody + 1)), State::malformed);
  EXPECT_EQ(larger.problem(), "the length 1048577 is more than 1048576");
}

TEST(EventFrameReaderTest, RefusesAnEarlyEnd) {
  EventFrameReader inLength;
  inLength.consume(lengthOf(3).substr(0, 2));
  EXPECT_EQ(inLength.finish(), State::malformed);
  EXPECT_EQ(inLength.problem(), "the connection ended after 2 of 4 bytes of the length");
  EventFrameReader inBody;
  inBody.consume(lengthOf(3) + "ab");
  EXPECT_EQ(inBody.finish(), State::malformed);
  EXPECT_EQ(inBody.problem(), "the connection ended after 2 of 3 bytes of the body");
  EventFrameReader empty;
  EXPECT_EQ(empty.finish(), State::malformed);
}

TEST(EventFrameReaderTest, RefusesBytesAfterTheFrame) {
  EventFrameReader together;
  EXPECT_EQ(together.consume(lengthOf(1) + "ab"), State::malformed);
  EXPECT_EQ(together.problem(), "bytes follow the frame of 1 bytes");
  EventFrameReader later;
  EXPECT_EQ(later.consume(lengthOf(1) + "a"), State::complete);
  EXPECT_EQ(later.consume("b"), State::malformed);
}

}  // namespace
}  // namespace ostravel::companion
