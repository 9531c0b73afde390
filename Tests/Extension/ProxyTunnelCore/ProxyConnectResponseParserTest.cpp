#include "Extension/ProxyTunnelCore/ProxyConnectResponseParser.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "Platform/Shared/ICUTextServices.h"
#include "Tests/Extension/Support/Bytes.h"

namespace ostravel {
namespace {

using connect_response::Established;
using connect_response::Invalid;
using connect_response::NeedMoreData;
using connect_response::Rejected;
using test::bytesOf;
using test::textOf;

constexpr std::string_view kSuccess = "HTTP/1.1 200 Connection established\r\n\r\n";

// Reads like the outcome: "established: LEFTOVER", "rejected: LINE", "invalid: REASON", "more".
std::string described(const ProxyConnectResponseOutcome& outcome) {
  struct Describe {
    std::string operator()(const Established& it) const {
      return "established: " + textOf(it.leftover);
    }
    std::string operator()(const Rejected& it) const {
      return "rejected: " + it.statusLine.value_or("absent");
    }
    std::string operator()(const Invalid& it) const { return "invalid: " + it.reason; }
    std::string operator()(const NeedMoreData& /*it*/) const { return "more"; }
  };
  return std::visit(Describe(), outcome);
}

class ProxyConnectResponseParserTest : public testing::Test {
 protected:
  std::string append(std::string_view chunk) { return described(parser_.append(bytesOf(chunk))); }

  platform::ICUTextServices text_;
  ProxyConnectResponseParser parser_{16384, text_};
};

TEST_F(ProxyConnectResponseParserTest, EstablishesOnASuccessLine) {
  EXPECT_EQ(append(kSuccess), "established: ");
}

TEST_F(ProxyConnectResponseParserTest, ReturnsWhatFollowsTheHeader) {
  EXPECT_EQ(append(std::string(kSuccess) + "abc"), "established: abc");
}

TEST_F(ProxyConnectResponseParserTest, ReturnsBytesThatAreNotText) {
  const std::string leftover("\xFF\x00\r\n\r\n\xC0", 7);

  EXPECT_EQ(append(std::string(kSuccess) + leftover), "established: " + leftover);
}

TEST_F(ProxyConnectResponseParserTest, IgnoresTheHeaderFields) {
  EXPECT_EQ(append("HTTP/1.1 200 OK\r\nContent-Length: 3\r\nVia: x\r\n\r\nabc"),
            "established: abc");
}

TEST_F(ProxyConnectResponseParserTest, NeedsEveryByteOfASplitAnswer) {
  for (std::size_t index = 0; index + 1 < kSuccess.size(); ++index) {
    ASSERT_EQ(append(kSuccess.substr(index, 1)), "more") << "at byte " << index;
  }

  EXPECT_EQ(append(kSuccess.substr(kSuccess.size() - 1)), "established: ");
}

TEST_F(ProxyConnectResponseParserTest, FindsATerminatorSplitOverTwoChunks) {
  EXPECT_EQ(append("HTTP/1.1 200 OK\r\n\r"), "more");
  EXPECT_EQ(append("\n"), "established: ");
}

TEST_F(ProxyConnectResponseParserTest, AcceptsAnEmptyChunk) {
  EXPECT_EQ(append(""), "more");
  EXPECT_EQ(append(kSuccess), "established: ");
  EXPECT_EQ(append(""), "established: ");
}

TEST_F(ProxyConnectResponseParserTest, RejectsWithTheFirstLine) {
  EXPECT_EQ(append("HTTP/1.1 407 Proxy Authentication Required\r\n"
                   "Proxy-Authenticate: Basic\r\n\r\n"),
            "rejected: HTTP/1.1 407 Proxy Authentication Required");
}

TEST_F(ProxyConnectResponseParserTest, RejectsWithTheTrimmedLine) {
  EXPECT_EQ(append(" \tHTTP/1.1 502 Bad Gateway \r\n\r\n"), "rejected: HTTP/1.1 502 Bad Gateway");
}

TEST_F(ProxyConnectResponseParserTest, TrimsTheLineBeforeItJudgesIt) {
  EXPECT_EQ(append("  HTTP/1.0 200 OK\t\r\n\r\n"), "established: ");
}

TEST_F(ProxyConnectResponseParserTest, TrimsUnicodeWhiteSpace) {
  EXPECT_EQ(append("\u00A0\u2003HTTP/1.1 200 OK\u2028\r\n\r\n"), "established: ");
}

TEST_F(ProxyConnectResponseParserTest, MissesTheStatusLineOfAnEmptyHeader) {
  EXPECT_EQ(append("\r\n\r\n"), "invalid: connect_status_line_missing");
}

TEST_F(ProxyConnectResponseParserTest, DoesNotSkipAnEmptyFirstLine) {
  EXPECT_EQ(append("\r\nHTTP/1.1 200 OK\r\n\r\n"), "invalid: connect_status_line_missing");
}

TEST_F(ProxyConnectResponseParserTest, MissesTheStatusLineWhenItIsOnlyWhiteSpace) {
  EXPECT_EQ(append(" \t \r\nVia: x\r\n\r\n"), "invalid: connect_status_line_missing");
}

TEST_F(ProxyConnectResponseParserTest, RefusesAHeaderThatIsNotUTF8) {
  EXPECT_EQ(append("HTTP/1.1 200 OK\r\nVia: \xFF\r\n\r\n"), "invalid: connect_header_not_utf8");
}

TEST_F(ProxyConnectResponseParserTest, AcceptsAHeaderWithUTF8FieldValues) {
  EXPECT_EQ(append("HTTP/1.1 200 OK\r\nVia: \u00E4\u20AC\r\n\r\n"), "established: ");
}

TEST_F(ProxyConnectResponseParserTest, NeedsMoreDataAtTheSizeLimit) {
  EXPECT_EQ(append(std::string(16384, 'x')), "more");
}

TEST_F(ProxyConnectResponseParserTest, RefusesOneByteMoreThanTheSizeLimit) {
  EXPECT_EQ(append(std::string(16385, 'x')), "invalid: connect_header_too_large");
}

TEST_F(ProxyConnectResponseParserTest, CountsTheBytesOfAllChunks) {
  EXPECT_EQ(append(std::string(16384, 'x')), "more");
  EXPECT_EQ(append("x"), "invalid: connect_header_too_large");
}

TEST_F(ProxyConnectResponseParserTest, AcceptsATerminatorInTheChunkThatPassesTheLimit) {
  std::string header = "HTTP/1.1 200 OK\r\nPadding: ";
  header.resize(16000, 'x');
  std::string rest(4096, 'y');
  rest.replace(0, 4, "\r\n\r\n");
  EXPECT_EQ(append(header), "more");

  EXPECT_EQ(append(rest), "established: " + rest.substr(4));
}

TEST_F(ProxyConnectResponseParserTest, AcceptsAHeaderThatItselfPassesTheLimit) {
  std::string header = "HTTP/1.1 200 OK\r\nPadding: ";
  header.resize(16384, 'x');
  EXPECT_EQ(append(header), "more");

  EXPECT_EQ(append("xxxx\r\n\r\n"), "established: ");
}

TEST_F(ProxyConnectResponseParserTest, NeverCompletesOnBareLineFeeds) {
  EXPECT_EQ(append("HTTP/1.1 200 OK\n\n"), "more");
  EXPECT_EQ(append(std::string(16384, 'x')), "invalid: connect_header_too_large");
}

TEST_F(ProxyConnectResponseParserTest, UsesTheFirstTerminator) {
  EXPECT_EQ(append("HTTP/1.1 200 OK\r\n\r\nHTTP/1.1 500 Oops\r\n\r\n"),
            "established: HTTP/1.1 500 Oops\r\n\r\n");
}

TEST_F(ProxyConnectResponseParserTest, GivesTheGrowingLeftoverAfterSuccess) {
  ASSERT_EQ(append(std::string(kSuccess) + "a"), "established: a");

  EXPECT_EQ(append("b"), "established: ab");
}

TEST_F(ProxyConnectResponseParserTest, RepeatsARejection) {
  ASSERT_EQ(append("HTTP/1.1 500 Oops\r\n\r\n"), "rejected: HTTP/1.1 500 Oops");

  EXPECT_EQ(append(kSuccess), "rejected: HTTP/1.1 500 Oops");
}

TEST_F(ProxyConnectResponseParserTest, RepeatsAnInvalidHeader) {
  ASSERT_EQ(append("\r\n\r\n"), "invalid: connect_status_line_missing");

  EXPECT_EQ(append(kSuccess), "invalid: connect_status_line_missing");
}

TEST_F(ProxyConnectResponseParserTest, IsNoLongerTooLargeOnceTheTerminatorArrives) {
  std::string header = "HTTP/1.1 200 OK\r\nPadding: ";
  header.resize(16385, 'x');
  ASSERT_EQ(append(header), "invalid: connect_header_too_large");
  ASSERT_EQ(append("x"), "invalid: connect_header_too_large");

  EXPECT_EQ(append("\r\n\r\n"), "established: ");
}

TEST_F(ProxyConnectResponseParserTest, ObeysTheGivenLimit) {
  ProxyConnectResponseParser parser(4, text_);

  EXPECT_EQ(described(parser.append(bytesOf("HTTP"))), "more");
  EXPECT_EQ(described(parser.append(bytesOf("/"))), "invalid: connect_header_too_large");
}

class SuccessLine : public ProxyConnectResponseParserTest,
                    public testing::WithParamInterface<const char*> {};

TEST_P(SuccessLine, Establishes) {
  EXPECT_EQ(append(std::string(GetParam()) + "\r\n\r\n"), "established: ");
}

INSTANTIATE_TEST_SUITE_P(Lines, SuccessLine,
                         testing::Values("HTTP/1.1 200 Connection established",
                                         "HTTP/1.0 200 Connection established", "HTTP/1.1 200",
                                         "HTTP/1.0 200", "HTTP/1.1 2000 x", "HTTP/1.0 200x",
                                         "HTTP/1.1 200\tOK"));

class OtherLine : public ProxyConnectResponseParserTest,
                  public testing::WithParamInterface<const char*> {};

TEST_P(OtherLine, Rejects) {
  EXPECT_EQ(append(std::string(GetParam()) + "\r\n\r\n"), std::string("rejected: ") + GetParam());
}

INSTANTIATE_TEST_SUITE_P(Lines, OtherLine,
                         testing::Values("HTTP/1.1 201 Created", "HTTP/2 200", "http/1.1 200 OK",
                                         "HTTP/1.1  200 OK", "HTTP/1.2 200 OK", "HTTP/1.1 20",
                                         "HTTP/1.1 407 Proxy Authentication Required",
                                         "xHTTP/1.1 200 OK", "SSH-2.0-OpenSSH"));

}  // namespace
}  // namespace ostravel
