#include "Base/FlowIdentifier.h"

#include <gtest/gtest.h>

#include <string>
#include <unordered_set>
#include <utility>

namespace ostravel {
namespace {

constexpr const char* kUUID = "6F9619FF-8B86-4011-B42D-00CF4FC964FF";

TEST(FlowIdentifier, IsTheTextItWasMadeOf) {
  for (const std::string text :
       {kUUID, "00000000-0000-4000-0000-000000000000", "FFFFFFFF-FFFF-4FFF-FFFF-FFFFFFFFFFFF",
        // Not what the platform makes: another version, small letters, other shapes.
        "6F9619FF-8B86-1011-B42D-00CF4FC964FF", "6f9619ff-8b86-4011-b42d-00cf4fc964ff",
        "00000000-0000-0000-0000-000000000000", "6F9619FF-8B86-4011-B42D-00CF4FC964F",
        "6F9619FF-8B86-4011-B42D-00CF4FC964FFF", "6F9619FF-8B86-4011+B42D-00CF4FC964FF",
        "6F9619FF08B86-4011-B42D-00CF4FC964FF", "6F9619FG-8B86-4011-B42D-00CF4FC964FF", "",
        "flow 1", "\r\n"}) {
    EXPECT_EQ(FlowIdentifier(text).text(), text);
  }
}

TEST(FlowIdentifier, OfAUUIDIsSmall) {
  EXPECT_EQ(sizeof(FlowIdentifier), 16U);
  EXPECT_TRUE(FlowIdentifier(kUUID).isUUID());
  EXPECT_FALSE(FlowIdentifier("flow").isUUID());
}

TEST(FlowIdentifier, IsEmptyByDefault) {
  EXPECT_EQ(FlowIdentifier().text(), "");
  EXPECT_EQ(FlowIdentifier(), FlowIdentifier(""));
}

TEST(FlowIdentifier, EqualsThoseOfTheSameText) {
  EXPECT_EQ(FlowIdentifier(kUUID), FlowIdentifier(kUUID));
  EXPECT_EQ(FlowIdentifier("a"), FlowIdentifier("a"));
  EXPECT_EQ(FlowIdentifier(""), FlowIdentifier(""));
  EXPECT_FALSE(FlowIdentifier(kUUID) == FlowIdentifier("a"));
  EXPECT_FALSE(FlowIdentifier("a") == FlowIdentifier("b"));
  EXPECT_FALSE(FlowIdentifier(kUUID) == FlowIdentifier("6F9619FF-8B86-4011-B42D-00CF4FC964FE"));
  EXPECT_FALSE(FlowIdentifier(kUUID) == FlowIdentifier("7F9619FF-8B86-4011-B42D-00CF4FC964FF"));
}

TEST(FlowIdentifier, CanBeCopiedAndMoved) {
  for (const std::string text : {kUUID, "a text that is kept on the heap"}) {
    const FlowIdentifier original(text);
    FlowIdentifier copy = original;
    EXPECT_EQ(copy, original);

    FlowIdentifier moved = std::move(copy);
    EXPECT_EQ(moved, original);

    FlowIdentifier assigned("b");
    assigned = moved;
    EXPECT_EQ(assigned.text(), text);
    EXPECT_EQ(moved.text(), text);
    assigned = FlowIdentifier("c");
    EXPECT_EQ(assigned.text(), "c");
  }
}

TEST(FlowIdentifier, IsFoundInASet) {
  std::unordered_set<FlowIdentifier, FlowIdentifier::Hash> set;
  set.insert(FlowIdentifier(kUUID));
  set.insert(FlowIdentifier("flow"));
  set.insert(FlowIdentifier("flow"));

  EXPECT_EQ(set.size(), 2U);
  EXPECT_TRUE(set.contains(FlowIdentifier(kUUID)));
  EXPECT_TRUE(set.contains(FlowIdentifier("flow")));
  EXPECT_FALSE(set.contains(FlowIdentifier("Flow")));
}

}  // namespace
}  // namespace ostravel
