#include "Platform/Linux/Names/DNSMessage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Tests/Platform/Linux/Names/Support/MessageBuilder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using namespace ostravel::testing;

using Bytes = std::vector<std::byte>;
using Addresses = std::vector<ResolvedAddress>;

const DNSQuestion kQuestion{7, "www.example", AddressFamily::ipv4};

ResolvedAddress resolved(const std::string& literal, std::chrono::seconds timeToLive) {
  return {addressOf(literal), timeToLive};
}

TEST(DNSMessageTest, ReadsTheQuestionOfAQuery) {
  EXPECT_EQ(parseDNSQuestion(query(7, "WWW.Example")), kQuestion);
  EXPECT_EQ(parseDNSQuestion(query(8, "a.b", kTypeAAAA)),
            (DNSQuestion{8, "a.b", AddressFamily::ipv6}));
  EXPECT_EQ(parseDNSQuestion(query(7, "AZ.az")), (DNSQuestion{7, "az.az", AddressFamily::ipv4}));
}

TEST(DNSMessageTest, IgnoresQueriesThatAskForNoAddressOfAHost) {
  EXPECT_FALSE(parseDNSQuestion(query(7, "www.example", 16)));
  EXPECT_FALSE(parseDNSQuestion(query(7, "")));
  EXPECT_FALSE(parseDNSQuestion(query(7, "10.0.0.1")));
  constexpr std::uint16_t kChaos = 3;
  EXPECT_FALSE(parseDNSQuestion(MessageBuilder(7, 0).question("www.example", 1, kChaos).bytes()));
  EXPECT_FALSE(parseDNSQuestion(
      MessageBuilder(7, 0).question("www.example", 1).question("b.example", 1).bytes()));
  // An answer, and an update (RFC 2136).
  EXPECT_FALSE(parseDNSQuestion(MessageBuilder(7, 0x8000).question("www.example", 1).bytes()));
  EXPECT_FALSE(parseDNSQuestion(MessageBuilder(7, 0x2800).question("www.example", 1).bytes()));
}

TEST(DNSMessageTest, ReadsTheAddressesOfAnAnswer) {
  const Bytes message = answerTo(7, "www.example")
                            .address("www.example", "192.0.2.1", 60)
                            .address("WWW.EXAMPLE", "192.0.2.2", 90)
                            .bytes();
  EXPECT_EQ(idOfDNSAnswer(message), 7);
  EXPECT_EQ(parseDNSAnswer(message, kQuestion),
            (Addresses{resolved("192.0.2.1", 60s), resolved("192.0.2.2", 90s)}));
}

TEST(DNSMessageTest, ReadsIPv6Addresses) {
  const DNSQuestion question{7, "www.example", AddressFamily::ipv6};
  const Bytes message = answerTo(7, "www.example", kTypeAAAA)
                            .address("www.example", "192.0.2.1", 60)
                            .address("www.example", "2001:db8::1", 60)
                            .record("www.example", kTypeAAAA, 60, Bytes(15))
                            .record("www.example", kTypeAAAA, 60, Bytes(17))
                            .bytes();
  EXPECT_EQ(parseDNSAnswer(message, question), Addresses{resolved("2001:db8::1", 60s)});
}

TEST(DNSMessageTest, ReadsAtMostSixtyFourRecords) {
  constexpr std::size_t kMaximum = 64;
  MessageBuilder message = answerTo(7, "www.example");
  for (std::size_t count = 1; count <= kMaximum + 1; ++count) {
    message.address("www.example", "192.0.2.1", 60);
    EXPECT_EQ(parseDNSAnswer(message.bytes(), kQuestion).size(), std::min(count, kMaximum));
  }
}

TEST(DNSMessageTest, FollowsAtMostFifteenAliases) {
  constexpr int kMaximum = 15;
  const auto answerWith = [](int aliases) {
    MessageBuilder message = answerTo(7, "www.example");
    std::string name = "www.example";
    for (int number = 1; number <= aliases; ++number) {
      const std::string next = "a" + std::to_string(number) + ".example";
      message.alias(name, next, 60);
      name = next;
    }
    return message.address(name, "192.0.2.1", 60).bytes();
  };
  EXPECT_EQ(parseDNSAnswer(answerWith(kMaximum), kQuestion), Addresses{resolved("192.0.2.1", 60s)});
  EXPECT_TRUE(parseDNSAnswer(answerWith(kMaximum + 1), kQuestion).empty());
}

TEST(DNSMessageTest, FollowsAliasesInAnyOrderWithTheShortestLife) {
  const Bytes message = answerTo(7, "www.example")
                            .address("c.example", "192.0.2.1", 300)
                            .alias("b.example", "c.example", 20)
                            .alias("www.example", "b.example", 100)
                            .bytes();
  EXPECT_EQ(parseDNSAnswer(message, kQuestion), Addresses{resolved("192.0.2.1", 20s)});
}

TEST(DNSMessageTest, IgnoresAddressesOfOtherNames) {
  const Bytes message = answerTo(7, "www.example")
                            .address("bank.example", "192.0.2.1", 60)
                            .address("www.example", "192.0.2.2", 60)
                            .address("www.example", "2001:db8::1", 60)
                            .bytes();
  EXPECT_EQ(parseDNSAnswer(message, kQuestion), Addresses{resolved("192.0.2.2", 60s)});
}

TEST(DNSMessageTest, FollowsNoAliasOfANameThatHasAddresses) {
  const Bytes message = answerTo(7, "www.example")
                            .address("www.example", "192.0.2.1", 60)
                            .alias("www.example", "b.example", 60)
                            .address("b.example", "192.0.2.2", 60)
                            .bytes();
  EXPECT_EQ(parseDNSAnswer(message, kQuestion), Addresses{resolved("192.0.2.1", 60s)});
}

TEST(DNSMessageTest, NothingBehindAnAliasOfTheWrongSizeIsBelieved) {
  Bytes message = answerTo(7, "www.example")
                      .alias("a.example", "b.example", 60)
                      .address("www.example", "192.0.2.1", 60)
                      .bytes();
  EXPECT_FALSE(parseDNSAnswer(message, kQuestion).empty());
  // The size of the alias's data, in front of its name.
  const std::size_t dataEnd =
      answerTo(7, "www.example").alias("a.example", "b.example", 60).bytes().size();
  const std::size_t lowByte = dataEnd - MessageBuilder::encodeName("b.example").size() - 1;
  message[lowByte] = static_cast<std::byte>(std::to_integer<unsigned>(message[lowByte]) + 1U);
  EXPECT_TRUE(parseDNSAnswer(message, kQuestion).empty());
}

TEST(DNSMessageTest, AnAliasOfItselfLeadsNowhere) {
  const Bytes message = answerTo(7, "www.example")
                            .alias("www.example", "b.example", 60)
                            .alias("b.example", "www.example", 60)
                            .bytes();
  EXPECT_TRUE(parseDNSAnswer(message, kQuestion).empty());
}

TEST(DNSMessageTest, IgnoresAnswersToOtherQuestions) {
  const Bytes message = answerTo(7, "www.example").address("www.example", "192.0.2.1", 60).bytes();
  for (const DNSQuestion& other : {DNSQuestion{8, "www.example", AddressFamily::ipv4},
                                   DNSQuestion{7, "ww.example", AddressFamily::ipv4},
                                   DNSQuestion{7, "www.example", AddressFamily::ipv6}}) {
    EXPECT_TRUE(parseDNSAnswer(message, other).empty());
  }
}

TEST(DNSMessageTest, IgnoresNegativeAndTruncatedAnswersAndQueries) {
  constexpr std::uint16_t kNoSuchName = 0x8183;
  constexpr std::uint16_t kTruncated = 0x8380;
  constexpr std::uint16_t kQuery = 0x0100;
  for (const std::uint16_t flags : {kNoSuchName, kTruncated, kQuery}) {
    const Bytes message = MessageBuilder(7, flags)
                              .question("www.example", kTypeA)
                              .address("www.example", "192.0.2.1", 60)
                              .bytes();
    EXPECT_FALSE(idOfDNSAnswer(message));
    EXPECT_TRUE(parseDNSAnswer(message, kQuestion).empty());
  }
}

TEST(DNSMessageTest, ADamagedRecordMakesTheAnswerUseless) {
  const Bytes message = answerTo(7, "www.example")
                            .address("www.example", "192.0.2.1", 60)
                            .address("www.example", "192.0.2.2", 60)
                            .bytes();
  for (std::size_t size = 0; size < message.size(); ++size) {
    EXPECT_TRUE(parseDNSAnswer(std::span(message).first(size), kQuestion).empty()) << size;
  }
}

TEST(DNSMessageTest, ALoopOfCompressionPointersIsDamage) {
  Bytes message = answerTo(7, "www.example").bytes();
  const auto here = static_cast<std::byte>(message.size());
  message[7] = std::byte{1};
  // The owner is a pointer to itself (RFC 1035, section 4.1.4).
  message.insert(message.end(), {std::byte{0xC0}, here});
  message.insert(message.end(), 14, std::byte{0});
  EXPECT_EQ(idOfDNSAnswer(message), 7);
  EXPECT_TRUE(parseDNSAnswer(message, kQuestion).empty());
}

TEST(DNSMessageTest, NothingBehindADamagedNameIsBelieved) {
  Bytes message = answerTo(7, "www.example").address("www.example", "192.0.2.1", 60).bytes();
  const std::size_t begin = answerTo(7, "www.example").bytes().size();
  message[7] = std::byte{2};
  // An owner that is a pointer to itself. Were it skipped, the rest could be read as the end of a
  // record without data.
  Bytes damaged(10);
  damaged[0] = std::byte{0xC0};
  damaged[1] = static_cast<std::byte>(begin);
  message.insert(message.begin() + static_cast<std::ptrdiff_t>(begin), damaged.begin(),
                 damaged.end());
  EXPECT_TRUE(parseDNSAnswer(message, kQuestion).empty());
}

TEST(DNSMessageTest, ExpandsCompressedNames) {
  Bytes message = answerTo(7, "www.example").address("", "192.0.2.1", 60).bytes();
  // Replaces the record's owner, the root, by a pointer to the question.
  const std::size_t owner = answerTo(7, "www.example").bytes().size();
  message[owner] = std::byte{12};
  message.insert(message.begin() + static_cast<std::ptrdiff_t>(owner), std::byte{0xC0});
  EXPECT_EQ(parseDNSAnswer(message, kQuestion), Addresses{resolved("192.0.2.1", 60s)});
}

TEST(DNSMessageTest, TheUppermostBitOfATimeToLiveMakesItZero) {
  const Bytes message =
      answerTo(7, "www.example").address("www.example", "192.0.2.1", 0x80000001).bytes();
  EXPECT_EQ(parseDNSAnswer(message, kQuestion), Addresses{resolved("192.0.2.1", 0s)});
}

TEST(DNSMessageTest, AnAddressOfTheWrongSizeIsIgnored) {
  const Bytes message = answerTo(7, "www.example")
                            .record("www.example", kTypeA, 60, Bytes(5))
                            .address("www.example", "192.0.2.2", 60)
                            .bytes();
  EXPECT_EQ(parseDNSAnswer(message, kQuestion), Addresses{resolved("192.0.2.2", 60s)});
}

TEST(DNSMessageTest, LongMessagesAreNotRead) {
  Bytes message = answerTo(7, "www.example").address("www.example", "192.0.2.1", 60).bytes();
  message.resize(kLongestDNSMessage);
  EXPECT_EQ(idOfDNSAnswer(message), 7);
  Bytes question = query(7, "www.example");
  question.resize(kLongestDNSMessage);
  EXPECT_EQ(parseDNSQuestion(question), kQuestion);
  message.resize(kLongestDNSMessage + 1);
  EXPECT_FALSE(idOfDNSAnswer(message));
}

TEST(DNSMessageTest, ReadsASingleRecord) {
  const auto recordIn = [](const MessageBuilder& message) {
    const Bytes bytes = message.bytes();
    const auto header = static_cast<std::ptrdiff_t>(MessageBuilder(0, 0).bytes().size());
    return Bytes(bytes.begin() + header, bytes.end());
  };
  Bytes record = recordIn(MessageBuilder(0, 0).address("www.example", "192.0.2.1", 60));
  EXPECT_EQ(parseDNSRecord(record), resolved("192.0.2.1", 60s));
  Bytes longest = record;
  longest.resize(kLongestDNSMessage);
  EXPECT_EQ(parseDNSRecord(longest), resolved("192.0.2.1", 60s));
  record.pop_back();
  EXPECT_FALSE(parseDNSRecord(record));
  EXPECT_FALSE(parseDNSRecord(recordIn(MessageBuilder(0, 0).alias("a.example", "b.example", 60))));
}

TEST(DNSMessageTest, OnlyNamesOfOtherHostsAreUsable) {
  for (const std::string name :
       {"www.example", "a-b.c_d.example", "xn--bcher-kva.example", "nas", "09.az"}) {
    EXPECT_TRUE(isUsableHostName(name)) << name;
  }
  for (const std::string name :
       {"", ".", "a..b", ".a", "a.", "a b", "a\r\nb", "a:80", "a/b", "a`b", "a{b", "aZb", "[::1]",
        "192.0.2.1", "a.109", "1.2.3.0x7f", "localhost", "x.localhost", "caf\xC3\xA9.example"}) {
    EXPECT_FALSE(isUsableHostName(name)) << name;
  }
  EXPECT_TRUE(isUsableHostName(std::string(63, 'a')));
  EXPECT_FALSE(isUsableHostName(std::string(64, 'a')));
  std::string longest;
  while (longest.size() < 252) {
    longest += "a.";
  }
  EXPECT_TRUE(isUsableHostName(longest + "b"));
  EXPECT_FALSE(isUsableHostName(longest + "bb"));
}

TEST(DNSMessageTest, NothingIsReadFromAMessageThatIsTooLong) {
  const auto tooLong = [](Bytes message) {
    message.resize(kLongestDNSMessage + 1);
    return message;
  };
  const Bytes answer = answerTo(7, "www.example").address("www.example", "192.0.2.1", 60).bytes();
  EXPECT_FALSE(parseDNSQuestion(tooLong(query(7, "www.example"))));
  EXPECT_EQ(idOfDNSAnswer(answer), 7);
  EXPECT_FALSE(idOfDNSAnswer(tooLong(answer)));
  EXPECT_TRUE(parseDNSAnswer(tooLong(answer), kQuestion).empty());
  EXPECT_FALSE(parseDNSRecord(tooLong({})));
}

}  // namespace
}  // namespace ostravel::linuxplatform
