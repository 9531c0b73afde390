#include "Companion/Sidecar/TunnelLog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ostravel::companion {
namespace {

using asio::ip::tcp;

class TunnelLogTest : public ::testing::Test {
 protected:
  TunnelLog log(TunnelLog::Verbosity verbosity = TunnelLog::Verbosity::beginnings) {
    return TunnelLog(verbosity, [this](std::string_view line) { lines_.emplace_back(line); });
  }
  // The part after the time of day.
  std::string onlyLine() const { return lines_.size() == 1 ? lines_[0].substr(13) : "not one"; }

  const tcp::endpoint origin_{asio::ip::make_address("2001:db8::7"), 443};
  std::vector<std::string> lines_;
};

TEST_F(TunnelLogTest, NamesTimeTargetIdentifiersAndResult) {
  log().established({{"example.org", 443}, "browser", "6F1C"}, origin_);
  EXPECT_EQ(onlyLine(), "example.org:443 app=browser flow=6F1C established to [2001:db8::7]:443");
  EXPECT_EQ(lines_[0][2], ':');
  EXPECT_EQ(lines_[0][8], '.');
}

TEST_F(TunnelLogTest, ShowsADashForWhatIsAbsent) {
  log().refused({}, HTTPStatus::badRequest, {});
  EXPECT_EQ(onlyLine(), "- app=- flow=- refused 400 Bad Request");
}

TEST_F(TunnelLogTest, LogsWhyATunnelWasRefused) {
  log().refused({{"a", 1}, "", ""}, HTTPStatus::badGateway, "Connection refused");
  EXPECT_EQ(onlyLine(), "a:1 app=- flow=- refused 502 Bad Gateway: Connection refused");
}

TEST_F(TunnelLogTest, LogsThatAClientHasLeft) {
  log().abandoned({{"a", 1}, "browser", ""});
  EXPECT_EQ(onlyLine(), "a:1 app=browser flow=- abandoned by the client");
}

TEST_F(TunnelLogTest, EscapesIdentifiers) {
  log().established({{"a", 1}, "x\x1b[2J", "y flow=z"}, tcp::endpoint());
  EXPECT_EQ(onlyLine(), "a:1 app=x\\x1b[2J flow=\"y flow=z\" established to 0.0.0.0:0");
}

TEST_F(TunnelLogTest, LogsEndsOnlyWhenAsked) {
  const TunnelRelay::Summary summary{TunnelRelay::Outcome::reset, 12, 34};
  log().ended({{"a", 1}, "", ""}, summary);
  EXPECT_TRUE(lines_.empty());
  log(TunnelLog::Verbosity::beginningsAndEnds).ended({{"a", 1}, "", ""}, summary);
  EXPECT_EQ(onlyLine(), "a:1 app=- flow=- ended by reset sent=12 received=34");
}

}  // namespace
}  // namespace ostravel::companion
