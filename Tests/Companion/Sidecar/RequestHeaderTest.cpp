#include "Companion/Sidecar/RequestHeader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace ostravel::companion {
namespace {

using State = RequestHeader::State;

State give(RequestHeader& header, std::string_view bytes) {
  std::copy(bytes.begin(), bytes.end(), header.space().begin());
  return header.commit(bytes.size());
}

TEST(RequestHeaderTest, FindsTheEndInOnePiece) {
  RequestHeader header;
  EXPECT_EQ(give(header, "A b c\r\nD: e\r\n\r\n"), State::complete);
  EXPECT_EQ(header.header(), "A b c\r\nD: e\r\n\r\n");
  EXPECT_EQ(header.remainder(), "");
}

TEST(RequestHeaderTest, FindsTheEndByteByByte) {
  RequestHeader header;
  const std::string_view text = "A b c\r\nD: e\r\n\r\n";
  for (const char& byte : text.substr(0, text.size() - 1)) {
    ASSERT_EQ(give(header, {&byte, 1}), State::incomplete);
  }
  EXPECT_EQ(give(header, "\n"), State::complete);
  EXPECT_EQ(header.header(), text);
}

TEST(RequestHeaderTest, KeepsTheBytesAfterTheHeader) {
  RequestHeader header;
  EXPECT_EQ(give(header, "A b c\r\n\r\nfirst\r\n\r\nsecond"), State::complete);
  EXPECT_EQ(header.header(), "A b c\r\n\r\n");
  EXPECT_EQ(header.remainder(), "first\r\n\r\nsecond");
}

TEST(RequestHeaderTest, IgnoresEmptyLinesAheadOfTheRequest) {
  RequestHeader header;
  EXPECT_EQ(give(header, "\r\n\r\n"), State::incomplete);
  EXPECT_TRUE(header.empty());
  EXPECT_EQ(give(header, "A b c\r\n\r\n"), State::complete);
  EXPECT_EQ(header.header(), "A b c\r\n\r\n");
}

TEST(RequestHeaderTest, RefusesLinesThatEndInLineFeedAlone) {
  RequestHeader first;
  EXPECT_EQ(give(first, "A b c\n\n"), State::malformed);
  RequestHeader second;
  EXPECT_EQ(give(second, "\n"), State::malformed);
  RequestHeader third;
  EXPECT_EQ(give(third, "A b c\r\n\n"), State::malformed);
}

TEST(RequestHeaderTest, TakesAHeaderThatJustFits) {
  RequestHeader header;
  const std::string text = std::string(RequestHeader::kCapacity - 4, 'a') + "\r\n\r\n";
  EXPECT_EQ(give(header, text), State::complete);
  EXPECT_EQ(header.header().size(), RequestHeader::kCapacity);
}

TEST(RequestHeaderTest, RefusesAHeaderOneByteTooLong) {
  RequestHeader header;
  const std::string text = std::string(RequestHeader::kCapacity - 3, 'a') + "\r\n\r";
  EXPECT_EQ(give(header, text), State::tooLong);
}

}  // namespace
}  // namespace ostravel::companion
