#include "Companion/Fleet/FleetMessage.h"

#include <gtest/gtest.h>

#include "Tests/Companion/Fleet/FleetSamples.h"

namespace ostravel::companion::test {
namespace {

TEST(FleetMessageTest, KnowsPlainNames) {
  for (const char* name : {"a", "host-1.example.org", "A_b", "6C1B0C0E-6E0B-4B0E"}) {
    EXPECT_TRUE(isPlainName(name)) << name;
  }
  EXPECT_TRUE(isPlainName(std::string(253, 'x')));
  for (const char* name : {"", " ", "a b", "a\r\nb", "a*", ">", "\xc3\xa4"}) {
    EXPECT_FALSE(isPlainName(name)) << name;
  }
  EXPECT_FALSE(isPlainName(std::string(254, 'x')));
}

TEST(FleetMessageTest, MakesNamesPlain) {
  EXPECT_EQ(plainName("host one\n"), "host_one_");
  EXPECT_EQ(plainName(""), "-");
  EXPECT_EQ(plainName(std::string(300, 'x')), std::string(253, 'x'));
}

TEST(FleetMessageTest, NamesThisMachine) {
  EXPECT_TRUE(isPlainName(nameOfThisHost()));
  EXPECT_EQ(thisBoot().size(), 36U);
  EXPECT_EQ(thisBoot(), thisBoot());
}

TEST(FleetMessageTest, HasASubjectWithHostAndBoot) {
  FleetMessage message = messageNumber(1, "a.example.org");
  EXPECT_EQ(fleetSubject(message), "ostravel.events.a_example_org.boot-1");
  EXPECT_TRUE(isFleetSubject("ostravel.events.a_example_org.boot-1", message));
}

TEST(FleetMessageTest, RejectsASubjectOfAnotherHost) {
  EXPECT_FALSE(isFleetSubject("ostravel.events.host-2.boot-1", messageNumber(1)));
  FleetMessage forged = messageNumber(1);
  forged.host = "host-1\x1b[2J";
  EXPECT_FALSE(isFleetSubject(fleetSubject(forged), forged));
}

TEST(FleetMessageTest, ReadsTheRecordThatItWrites) {
  const FleetMessage message = messageNumber(7);
  EXPECT_EQ(encodeRecord(message), "host-1 boot-1 host-1-7\n{\"number\":7}");
  EXPECT_EQ(decodeRecord(encodeRecord(message)), message);
}

TEST(FleetMessageTest, ReadsNoDamagedRecord) {
  for (const char* record : {"", "host boot id", "\n{}", "host boot\n{}", "host boot i d\n{}"}) {
    EXPECT_EQ(decodeRecord(record), std::nullopt) << record;
  }
}

}  // namespace
}  // namespace ostravel::companion::test
