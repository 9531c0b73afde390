#include "Platform/Linux/Identity/ProxyAnswer.h"

#include <gtest/gtest.h>

namespace ostravel::linuxplatform {
namespace {

TEST(ProxyAnswerTest, EverySuccessIsATunnel) {
  for (const char* const line :
       {"HTTP/1.1 200 Connection established", "HTTP/1.0 200 OK", "HTTP/1.1 200", "HTTP/1.1 204 x",
        "HTTP/1.1 299", "HTTP/1.9 200", "  HTTP/1.1 200 OK\t", "HTTP/1.1  200 OK"}) {
    EXPECT_EQ(judgeProxyAnswer(line), ProxyAnswer::tunnel) << line;
  }
}

TEST(ProxyAnswerTest, RefusalsAreAProxysAnswers) {
  for (const char* const line :
       {"HTTP/1.1 403 Forbidden", "HTTP/1.1 407 Proxy Authentication Required", "HTTP/1.1 429",
        "HTTP/1.0 500 Unable to connect", "HTTP/1.1 502 Bad Gateway", "HTTP/1.1 503 x",
        "HTTP/1.1 504 x"}) {
    EXPECT_EQ(judgeProxyAnswer(line), ProxyAnswer::refusal) << line;
  }
}

TEST(ProxyAnswerTest, OtherStatusesAreAWebServersAnswers) {
  for (const char* const line :
       {"HTTP/1.1 100 Continue", "HTTP/1.1 199", "HTTP/1.1 300", "HTTP/1.1 301 Moved Permanently",
        "HTTP/1.1 302 x", "HTTP/1.1 400 Bad Request", "HTTP/1.1 401 x", "HTTP/1.1 404 Not Found",
        "HTTP/1.1 405 Not Allowed", "HTTP/1.1 418 x", "HTTP/1.1 501 Unsupported method"}) {
    EXPECT_EQ(judgeProxyAnswer(line), ProxyAnswer::notAProxy) << line;
  }
}

TEST(ProxyAnswerTest, OtherProtocolsAreNotAProxysAnswers) {
  for (const char* const line :
       {"", " ", "SSH-2.0-OpenSSH_9.2p1", "HTTP", "HTTP/1.", "HTTP/1.1", "HTTP/1.1 ", "HTTP/1.1200",
        "HTTP/1.1 20", "HTTP/1.1 2000", "HTTP/1.1 2x0", "HTTP/1.1 -20", "HTTP/1.11 200 OK",
        "HTTP/1.x 200 OK", "HTTP/2 200", "http/1.1 200 OK", "200 OK", "x HTTP/1.1 200 OK"}) {
    EXPECT_EQ(judgeProxyAnswer(line), ProxyAnswer::notAProxy) << line;
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform
