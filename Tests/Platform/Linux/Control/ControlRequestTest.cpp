#include "Platform/Linux/Control/ControlRequest.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace ostravel::linuxplatform {
namespace {

using Kind = ControlRequest::Kind;

ControlRequest parsed(std::string_view line) {
  const auto result = ControlRequest::parse(line);
  const auto* const error = std::get_if<ControlError>(&result);
  EXPECT_EQ(error, nullptr) << (error == nullptr ? "" : error->message);
  return error == nullptr ? std::get<ControlRequest>(result) : ControlRequest();
}

ControlError refused(std::string_view line) {
  const auto result = ControlRequest::parse(line);
  const auto* const error = std::get_if<ControlError>(&result);
  return error == nullptr ? ControlError{"none", ""} : *error;
}

std::string codeOf(std::string_view line) {
  return refused(line).code;
}

TEST(ControlRequestTest, KnowsEveryRequest) {
  for (const Kind kind : {Kind::status, Kind::decisions, Kind::tunnels, Kind::reload}) {
    const std::string line = R"({"version":1,"request":")" + std::string(nameOf(kind)) + "\"}";
    EXPECT_EQ(parsed(line).kind, kind);
  }
}

TEST(ControlRequestTest, IgnoresUnknownMembers) {
  EXPECT_EQ(parsed(R"({"version":1,"request":"status","colour":"red"})").kind, Kind::status);
}

TEST(ControlRequestTest, ReadsTheMembersOfDecisions) {
  const auto request =
      parsed(R"({"version":1,"request":"decisions","after":7,"updated_after":1.5,"limit":3})");
  EXPECT_EQ(request.after, 7U);
  EXPECT_EQ(request.updatedAfter, 1.5);
  EXPECT_EQ(request.limit, 3U);
}

TEST(ControlRequestTest, HasDefaults) {
  const auto decisions = parsed(R"({"version":1,"request":"decisions"})");
  EXPECT_EQ(decisions.after, std::nullopt);
  EXPECT_EQ(decisions.limit, 100U);
  EXPECT_EQ(parsed(R"({"version":1,"request":"tunnels"})").limit, 1000U);
  const auto explain = parsed(R"({"version":1,"request":"explain","pid":4711})");
  EXPECT_EQ(explain.pid, 4711);
  EXPECT_EQ(explain.port, 443);
  EXPECT_FALSE(explain.isUDP);
}

TEST(ControlRequestTest, ReadsTheMembersOfExplain) {
  const auto request = parsed(
      R"({"version":1,"request":"explain","path":"/a","host":"h","port":53,"protocol":"udp"})");
  EXPECT_EQ(request.path, "/a");
  EXPECT_EQ(request.host, "h");
  EXPECT_EQ(request.port, 53);
  EXPECT_TRUE(request.isUDP);
}

TEST(ControlRequestTest, RefusesAnythingButAnObject) {
  for (const auto* line : {"", "[]", "7", "status", "{", "{}x", "\xff",
                           R"({"version":1,"version":1,"request":"status"})"}) {
    EXPECT_EQ(codeOf(line), "bad_request") << line;
  }
}

TEST(ControlRequestTest, RefusesOtherVersionsAndRequests) {
  EXPECT_EQ(codeOf(R"({"version":2,"request":"status"})"), "unsupported_version");
  EXPECT_EQ(codeOf(R"({"request":"status"})"), "bad_request");
  EXPECT_EQ(codeOf(R"({"version":"1","request":"status"})"), "bad_request");
  EXPECT_EQ(codeOf(R"({"version":1})"), "bad_request");
  EXPECT_EQ(codeOf(R"({"version":1,"request":"stop"})"), "unknown_request");
}

TEST(ControlRequestTest, RefusesValuesOfAnotherTypeOrOutOfRange) {
  for (const auto* members :
       {R"("request":"decisions","limit":0)", R"("request":"decisions","limit":1001)",
        R"("request":"decisions","limit":"1")", R"("request":"decisions","after":-1)",
        R"("request":"decisions","after":1.5)", R"("request":"decisions","updated_after":"x")",
        R"("request":"tunnels","limit":10001)", R"("request":"explain")",
        R"("request":"explain","pid":0)", R"("request":"explain","pid":99999999999)",
        R"("request":"explain","pid":1,"path":"/a")", R"("request":"explain","path":"")",
        R"("request":"explain","host":"h","port":0)",
        R"("request":"explain","host":"h","port":65536)",
        R"("request":"explain","host":"h","protocol":"sctp")"}) {
    EXPECT_EQ(codeOf(std::string(R"({"version":1,)") + members + "}"), "bad_request") << members;
  }
}

TEST(ControlRequestTest, NamesTheMemberThatIsWrong) {
  EXPECT_EQ(refused(R"({"version":1,"request":"tunnels","limit":0})").message,
            "\"limit\" has to be an integer from 1 to 10000");
}

}  // namespace
}  // namespace ostravel::linuxplatform
