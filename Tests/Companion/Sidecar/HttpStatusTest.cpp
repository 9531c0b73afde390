#include "Companion/Sidecar/HttpStatus.h"

#include <gtest/gtest.h>

namespace ostravel::companion {
namespace {

TEST(HttpStatusTest, EveryRefusalHasAReason) {
  for (const auto status :
       {HttpStatus::badRequest, HttpStatus::methodNotAllowed, HttpStatus::requestTimeout,
        HttpStatus::headerTooLarge, HttpStatus::badGateway, HttpStatus::gatewayTimeout}) {
    EXPECT_NE(reasonPhrase(status), "Unknown") << static_cast<int>(status);
  }
}

TEST(HttpStatusTest, ARefusalEndsTheConnection) {
  EXPECT_EQ(refusalAnswer(HttpStatus::badGateway),
            "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
}

TEST(HttpStatusTest, ARefusedMethodNamesTheAllowedOne) {
  EXPECT_EQ(refusalAnswer(HttpStatus::methodNotAllowed),
            "HTTP/1.1 405 Method Not Allowed\r\nAllow: CONNECT\r\nContent-Length: 0\r\n"
            "Connection: close\r\n\r\n");
}

}  // namespace
}  // namespace ostravel::companion
