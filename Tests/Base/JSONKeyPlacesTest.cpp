#include "Base/JSONKeyPlaces.h"

#include <gtest/gtest.h>

namespace ostravel {
namespace {

TEST(JSONKeyPlaces, CountsLinesAndColumnsFromOne) {
  const JSONKeyPlaces places("{\"a\": 1,\n  \"b\": [\"c\", {\"d\": 2}],\n\n\t\"e\": null}");
  EXPECT_EQ(places.of("a"), ":1:2");
  EXPECT_EQ(places.of("b"), ":2:3");
  EXPECT_EQ(places.of("e"), ":4:2");
}

TEST(JSONKeyPlaces, KnowsOnlyTheOutermostMembers) {
  const JSONKeyPlaces places(R"({"a": {"b": 1, "c": [{"d": 1}]}, "e": "f"})");
  for (const char* const absent : {"b", "c", "d", "f", "", "x"}) {
    EXPECT_EQ(places.of(absent), "") << absent;
  }
  EXPECT_EQ(places.of("e"), ":1:34");
}

TEST(JSONKeyPlaces, CountsCharactersInsteadOfBytes) {
  const JSONKeyPlaces places("{\"caf\xc3\xa9\": \"\xe2\x82\xac\", \"b\": 1}");
  EXPECT_EQ(places.of("caf\xc3\xa9"), ":1:2");
  EXPECT_EQ(places.of("b"), ":1:15");
}

TEST(JSONKeyPlaces, DecodesEscapes) {
  const JSONKeyPlaces places(R"({"a\"b\\": "}, {\"x\": ", "\u0063": 1, "d": 2})");
  EXPECT_EQ(places.of("a\"b\\"), ":1:2");
  EXPECT_EQ(places.of("c"), ":1:27");
  EXPECT_EQ(places.of("d"), ":1:40");
}

TEST(JSONKeyPlaces, AcceptsTextThatIsNotAnObjectWithMembers) {
  EXPECT_EQ(JSONKeyPlaces("").of("a"), "");
  EXPECT_EQ(JSONKeyPlaces("{}").of("a"), "");
  EXPECT_EQ(JSONKeyPlaces("\"a\"").of("a"), "");
  EXPECT_EQ(JSONKeyPlaces("\"unfinished").of("a"), "");
  EXPECT_EQ(JSONKeyPlaces("{\"unfinished\\").of("a"), "");
}

}  // namespace
}  // namespace ostravel
