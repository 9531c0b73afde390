#include "Companion/Sidecar/ConnectRequest.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <variant>

namespace ostravel::companion {
namespace {

ConnectRequest accepted(std::string_view header) {
  return std::get<ConnectRequest>(parseConnectRequest(header));
}

HTTPStatus refused(std::string_view header) {
  return std::get<HTTPStatus>(parseConnectRequest(header));
}

TEST(ConnectRequestTest, ReadsTheTargetAndTheIdentifiers) {
  const ConnectRequest request = accepted(
      "CONNECT example.org:443 HTTP/1.1\r\nHost: example.org:443\r\n"
      "X-Ostravel-App-Id: org.example.browser\r\nX-Ostravel-Flow-Id:\t6F1C \r\n\r\n");
  EXPECT_EQ(request.target.host, "example.org");
  EXPECT_EQ(request.target.port, 443);
  EXPECT_EQ(request.appId, "org.example.browser");
  EXPECT_EQ(request.flowId, "6F1C");
}

TEST(ConnectRequestTest, ReadsFieldNamesInAnyCase) {
  EXPECT_EQ(accepted("CONNECT a:1 HTTP/1.1\r\nx-ostravel-APP-ID: x\r\n\r\n").appId, "x");
}

TEST(ConnectRequestTest, LeavesAbsentIdentifiersEmpty) {
  const ConnectRequest request = accepted("CONNECT [::1]:443 HTTP/1.0\r\nOther: x\r\n\r\n");
  EXPECT_EQ(request.target.host, "::1");
  EXPECT_EQ(request.appId, "");
  EXPECT_EQ(request.flowId, "");
}

TEST(ConnectRequestTest, RefusesEveryOtherMethod) {
  EXPECT_EQ(refused("GET http://a/ HTTP/1.1\r\n\r\n"), HTTPStatus::methodNotAllowed);
  EXPECT_EQ(refused("OPTIONS * HTTP/1.1\r\n\r\n"), HTTPStatus::methodNotAllowed);
  EXPECT_EQ(refused("connect a:1 HTTP/1.1\r\n\r\n"), HTTPStatus::methodNotAllowed);
}

TEST(ConnectRequestTest, RefusesAMalformedRequestLine) {
  for (const char* line :
       {"CONNECT", "CONNECT a:1", "CONNECT  a:1 HTTP/1.1", "CONNECT a:1  HTTP/1.1",
        "CONNECT a:1 HTTP/1.1 ", " CONNECT a:1 HTTP/1.1", "CONNECT a:1 HTTP/2.0",
        "CONNECT a:1 http/1.1", "CONNECT a:0 HTTP/1.1", "CONNECT a HTTP/1.1",
        "CONNECT http://a:1/ HTTP/1.1", "CON(ECT a:1 HTTP/1.1", "CONNECT a\x7f:1 HTTP/1.1"}) {
    EXPECT_EQ(refused(std::string(line) + "\r\n\r\n"), HTTPStatus::badRequest) << line;
  }
}

TEST(ConnectRequestTest, RefusesAMalformedField) {
  for (const std::string& field :
       {std::string("no colon"), std::string(": no name"), std::string("Name : blank"),
        std::string(" Folded: x"), std::string("A: b\rc"), std::string("A: b\0c", 6)}) {
    EXPECT_EQ(refused("CONNECT a:1 HTTP/1.1\r\n" + field + "\r\n\r\n"), HTTPStatus::badRequest)
        << field;
  }
}

}  // namespace
}  // namespace ostravel::companion
