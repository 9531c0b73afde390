#include "Companion/Shared/HostPort.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace ostravel::companion {
namespace {

TEST(HostPortTest, ReadsNamesAndAddresses) {
  for (const auto& [text, host, port] : {std::tuple{"example.org:443", "example.org", 443},
                                         {"192.0.2.1:80", "192.0.2.1", 80},
                                         {"[2001:db8::1]:8443", "2001:db8::1", 8443},
                                         {"under_score:1", "under_score", 1},
                                         {"localhost:0", "localhost", 0},
                                         {"a:65535", "a", 65535}}) {
    const auto parsed = parseHostPort(text);
    ASSERT_TRUE(parsed) << text;
    EXPECT_EQ(parsed->host, host);
    EXPECT_EQ(parsed->port, port);
    EXPECT_EQ(toString(*parsed), text);
  }
}

TEST(HostPortTest, RefusesEverythingElse) {
  for (const char* text : {"",
                           ":",
                           ":80",
                           "host",
                           "host:",
                           "host:65536",
                           "host:-1",
                           "host:+1",
                           "host: 1",
                           "host:1x",
                           "host:99999999999999999999",
                           "::1:80",
                           "[::1]",
                           "[]:80",
                           "[name]:80",
                           "[127.0.0.1]:80",
                           "[::1:80",
                           "::1]:80",
                           "ho st:80",
                           "user@host:80",
                           "http://host:80",
                           "host/:80",
                           "h\x01st:80",
                           "h\xc3\xa9:80"}) {
    EXPECT_FALSE(parseHostPort(text)) << text;
  }
  EXPECT_FALSE(parseHostPort(std::string(256, 'a') + ":1"));
}

TEST(HostPortTest, AnAddressLiteralIsAnEndpoint) {
  for (const char* const text : {"127.0.0.1:8080", "[2001:db8::1]:443", "[::1]:0"}) {
    const auto endpoint = literalEndpoint(*parseHostPort(text));
    ASSERT_TRUE(endpoint) << text;
    EXPECT_EQ(toString(*endpoint), text);
  }
  for (const char* const host : {"name", "127.1", "1.2.3.4.5"}) {
    EXPECT_FALSE(literalEndpoint({host, 80})) << host;
  }
}

}  // namespace
}  // namespace ostravel::companion
