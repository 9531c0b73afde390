#include "Platform/Linux/Identity/PrintableIdentifier.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <string_view>

namespace ostravel::linuxplatform {
namespace {

TEST(PrintableIdentifierTest, PrintableTextIsUnchanged) {
  for (const char* const text : {"", "/usr/bin/curl", "com.example.app", "/opt/My App/run",
                                 "/a~!\"#", "/100%", "/a%", "/a%4", "/a%4g", "/a%g4", "/a%%"}) {
    EXPECT_EQ(printableIdentifier(text), text);
  }
}

TEST(PrintableIdentifierTest, OtherBytesAreEncoded) {
  EXPECT_EQ(printableIdentifier("/caf\xc3\xa9"), "/caf%C3%A9");
  EXPECT_EQ(printableIdentifier("/a\r\nX: b"), "/a%0D%0AX: b");
  EXPECT_EQ(printableIdentifier("/a\x7f\xff\x01"), "/a%7F%FF%01");
  EXPECT_EQ(printableIdentifier(std::string("/a\0b", 4)), "/a%00b");
  EXPECT_EQ(printableIdentifier("/tab\there"), "/tab%09here");
}

TEST(PrintableIdentifierTest, SpacesAtTheEndsAreEncoded) {
  EXPECT_EQ(printableIdentifier(" a b "), "%20a b%20");
  EXPECT_EQ(printableIdentifier(" "), "%20");
  EXPECT_EQ(printableIdentifier("  "), "%20%20");
  EXPECT_EQ(printableIdentifier("/a  "), "/a %20");
}

TEST(PrintableIdentifierTest, APercentSignIsEncodedBeforeTwoHexDigits) {
  EXPECT_EQ(printableIdentifier("/a%41"), "/a%2541");
  EXPECT_EQ(printableIdentifier("/a%c3%A9"), "/a%25c3%25A9");
  EXPECT_EQ(printableIdentifier("%\xc3"), "%%C3");
  for (const char digit : std::string("0123456789ABCDEFabcdef")) {
    for (const std::string& digits : {std::string{digit, '4'}, std::string{'4', digit}}) {
      EXPECT_EQ(printableIdentifier("%" + digits), "%25" + digits);
    }
  }
  for (const char other : std::string("/:@G`g")) {
    const std::string text{'%', other, '4'};
    EXPECT_EQ(printableIdentifier(text), text);
  }
}

TEST(PrintableIdentifierTest, ReadsNothingBehindTheName) {
  EXPECT_EQ(printableIdentifier(std::string_view("/a%41").substr(0, 4)), "/a%4");
}

TEST(PrintableIdentifierTest, DifferentBytesHaveDifferentIdentifiers) {
  const std::string alphabet = "%2Cc \x01\xff";
  std::set<std::string> identifiers;
  std::size_t count = 0;
  for (const char a : alphabet) {
    for (const char b : alphabet) {
      for (const char c : alphabet) {
        for (const char d : alphabet) {
          identifiers.insert(printableIdentifier(std::string{a, b, c, d}));
          ++count;
        }
      }
    }
  }
  EXPECT_EQ(identifiers.size(), count);
}

TEST(PrintableIdentifierTest, AnOverlongIdentifierIsEmpty) {
  EXPECT_EQ(printableIdentifier(std::string(kMaximumIdentifierSize, 'a')).size(),
            kMaximumIdentifierSize);
  EXPECT_EQ(printableIdentifier(std::string(kMaximumIdentifierSize + 1, 'a')), "");
  EXPECT_EQ(printableIdentifier(std::string(kMaximumIdentifierSize / 2, '\xff')), "");
}

}  // namespace
}  // namespace ostravel::linuxplatform
