#include "Companion/Monitor/Web/RequestGuard.h"

#include <gtest/gtest.h>

#include <string>

namespace ostravel::companion {
namespace {

const std::string kToken = "0123456789abcdef";

class RequestGuardTest : public ::testing::Test {
 protected:
  static RequestClaims good() {
    return {.method = "GET",
            .host = "127.0.0.1:8090",
            .origin = "",
            .authorization = "",
            .token = kToken};
  }

  int refusal(const RequestClaims& claims, bool needsToken = true) const {
    return guard_.refusal(claims, needsToken);
  }

  const RequestGuard guard_{"127.0.0.1", kToken};
};

TEST_F(RequestGuardTest, AcceptsRequestsWithTheToken) {
  EXPECT_EQ(refusal(good()), 0);
  RequestClaims bearer = good();
  bearer.token = "";
  bearer.authorization = "Bearer " + kToken;
  EXPECT_EQ(refusal(bearer), 0);
}

TEST_F(RequestGuardTest, RefusesRequestsWithoutTheToken) {
  for (const std::string& token : {std::string(), std::string("0123456789abcdee"), kToken + "0"}) {
    RequestClaims claims = good();
    claims.token = token;
    EXPECT_EQ(refusal(claims), 401) << token;
    EXPECT_EQ(refusal(claims, false), 0);
    claims.authorization = "Basic " + kToken;
    EXPECT_EQ(refusal(claims), 401);
  }
}

TEST_F(RequestGuardTest, AcceptsAddressesAndLocalhost) {
  for (const char* const host : {"127.0.0.1:8090", "localhost:8090", "LOCALHOST:1", "[::1]:8090",
                                 "192.0.2.1:8090", "127.0.0.1"}) {
    RequestClaims claims = good();
    claims.host = host;
    EXPECT_EQ(refusal(claims), 0) << host;
  }
}

TEST_F(RequestGuardTest, RefusesNamesThatCouldResolveToUs) {
  for (const char* const host : {"rebound.example:8090", "localhost.example:8090", "example",
                                 "127.0.0.1.example:8090", "a b", "127.0.0.1:99999", "[::1"}) {
    RequestClaims claims = good();
    claims.host = host;
    EXPECT_EQ(refusal(claims), 403) << host;
    // The page's own files too: they would run in the foreign page's origin.
    EXPECT_EQ(refusal(claims, false), 403) << host;
  }
  RequestClaims none = good();
  none.host = "";
  EXPECT_EQ(refusal(none), 400);
}

TEST_F(RequestGuardTest, RefusesOtherOrigins) {
  RequestClaims claims = good();
  claims.origin = "http://127.0.0.1:8090";
  EXPECT_EQ(refusal(claims), 0);
  for (const char* const origin :
       {"null", "https://127.0.0.1:8090", "http://127.0.0.1:8091", "http://example.org"}) {
    claims.origin = origin;
    EXPECT_EQ(refusal(claims), 403) << origin;
  }
}

TEST_F(RequestGuardTest, AllowsOnlyReading) {
  for (const char* const method : {"POST", "PUT", "DELETE", "OPTIONS", "PATCH", "CONNECT"}) {
    RequestClaims claims = good();
    claims.method = method;
    EXPECT_EQ(refusal(claims), 405) << method;
  }
  RequestClaims head = good();
  head.method = "HEAD";
  EXPECT_EQ(refusal(head), 0);
}

TEST(RandomToken, IsLongAndDifferentEachTime) {
  EXPECT_EQ(randomToken().size(), 32U);
  EXPECT_NE(randomToken(), randomToken());
}

}  // namespace
}  // namespace ostravel::companion
