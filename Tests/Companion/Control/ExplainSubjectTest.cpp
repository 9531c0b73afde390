#include "Companion/Control/ExplainSubject.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "Base/JSONHandle.h"

namespace ostravel::companion::test {
namespace {

// The members that the text adds to a request; "no" if it can be no subject.
std::string added(const std::string& text) {
  const JSONHandle request(json_object());
  if (!addExplainSubject(request.get(), text)) {
    return "no";
  }
  const std::unique_ptr<char, decltype(&std::free)> json(
      json_dumps(request.get(), JSON_COMPACT | JSON_SORT_KEYS), &std::free);
  return json.get();
}

TEST(ExplainSubjectTest, IsAProcessAPathOrAHost) {
  EXPECT_EQ(added("1"), R"({"pid":1})");
  EXPECT_EQ(added("/usr/bin/../bin/curl"), R"({"path":"/usr/bin/curl"})");
  EXPECT_EQ(added("example.org"), R"({"host":"example.org"})");
  EXPECT_EQ(added("localhost"), R"({"host":"localhost"})");
  EXPECT_EQ(added("_dmarc.example-1.org."), R"({"host":"_dmarc.example-1.org."})");
  EXPECT_EQ(added("192.0.2.1"), R"({"host":"192.0.2.1"})");
}

TEST(ExplainSubjectTest, HasAPortAfterItsHost) {
  EXPECT_EQ(added("example.org:8080"), R"({"host":"example.org","port":8080})");
  EXPECT_EQ(added("192.0.2.1:22"), R"({"host":"192.0.2.1","port":22})");
  EXPECT_EQ(added("[2001:db8::1]:22"), R"({"host":"2001:db8::1","port":22})");
  EXPECT_EQ(added("[2001:db8::1]"), R"({"host":"2001:db8::1"})");
  EXPECT_EQ(added("2001:db8::1"), R"({"host":"2001:db8::1"})");
  EXPECT_EQ(added("fe80::1%eth0"), R"({"host":"fe80::1%eth0"})");
  EXPECT_EQ(added("example.org:http"), R"({"host":"example.org","port":0})");
}

TEST(ExplainSubjectTest, IsTheDestinationOfAURL) {
  EXPECT_EQ(added("https://user@example.org/a?b@c"), R"({"host":"example.org","port":443})");
  EXPECT_EQ(added("http://example.org#top"), R"({"host":"example.org","port":80})");
  EXPECT_EQ(added("http://example.org:81/"), R"({"host":"example.org","port":81})");
}

TEST(ExplainSubjectTest, IsNotAnythingElse) {
  for (const char* const text :
       {"", "some words", "example.org curl", "*.example.org", "a..b", ".example.org", ".", ":80",
        "[]", "[example", "https://", "https:///path", "1.2.3", "300.0.2.1", "99999999999",
        "192.0.2.1%eth0",
        "b\xc3\xbc"
        "cher.de",
        "\xff", "/\xff"}) {
    EXPECT_EQ(added(text), "no") << text;
  }
  EXPECT_EQ(added(std::string(64, 'a') + ".org"), "no");
  EXPECT_EQ(added(std::string(63, 'a') + ".org"),
            R"({"host":")" + std::string(63, 'a') + R"(.org"})");
  std::string name;
  while (name.size() < 254) {
    name += "a.";
  }
  EXPECT_EQ(added(name + "a"), "no");
}

}  // namespace
}  // namespace ostravel::companion::test
