#include "Companion/Sidecar/HTTPStatus.h"

#include <gtest/gtest.h>

namespace ostravel::companion {
namespace {

TEST(HTTPStatusTest, EveryRefusalHasAReason) {
  for (const auto status :
       {HTTPStatus::badRequest, HTTPStatus::methodNotAllowed, HTTPStatus::requestTimeout,
        HTTPStatus::headerTooLarge, HTTPStatus::badGateway, HTTPStatus::gatewayTimeout}) {
    EXPECT_NE(reasonPhrase(status), "Unknown") << static_cast<int>(status);
  }
}

TEST(HTTPStatusTest, ARefusalEndsTheConnection) {
  EXPECT_EQ(refusalAnswer(HTTPStatus::badGateway),
            "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
}

TEST(HTTPStatusTest, ARefusedMethodNamesTheAllowedOne) {
  EXPECT_EQ(refusalAnswer(HTTPStatus::methodNotAllowed),
            "HTTP/1.1 405 Method Not Allowed\r\nAllow: CONNECT\r\nContent-Length: 0\r\n"
            "Connection: close\r\n\r\n");
}

}  // namespace
}  // namespace ostravel::companion
