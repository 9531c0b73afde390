#import "Platform/macOS/Foundation/FoundationText.h"

#include <gtest/gtest.h>

#include <string>

#import "Tests/Platform/macOS/Support/PoolTest.h"

namespace ostravel::macos::test {
namespace {

class FoundationTextTest : public PoolTest {};

TEST_F(FoundationTextTest, TextKeepsEveryCharacter) {
  for (const auto& text : {std::string(), std::string("com.example.app"), std::string("a\0b", 3),
                           std::string("\u00fc\u6f22\U0001F600")}) {
    EXPECT_EQ(textOf(makeString(text)), text);
  }
}

TEST_F(FoundationTextTest, NilTextIsEmpty) {
  EXPECT_EQ(textOf(nil), "");
}

TEST_F(FoundationTextTest, TextWithoutAUTF8FormIsEmpty) {
  const unichar surrogate = 0xD800;
  EXPECT_EQ(textOf([NSString stringWithCharacters:&surrogate length:1]), "");
}

TEST_F(FoundationTextTest, BytesThatAreNotUTF8StillMakeAString) {
  EXPECT_EQ(textOf(makeString("a\xff")), "a\u00ff");
}

}  // namespace
}  // namespace ostravel::macos::test
