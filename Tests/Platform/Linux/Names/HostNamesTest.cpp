#include "Platform/Linux/Names/HostNames.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "Tests/Platform/Linux/Names/Support/MessageBuilder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using testing::addressOf;

using Owner = HostNames::Owner;

constexpr uid_t kUser = 1000;
constexpr uid_t kOther = 1001;
constexpr const char* kBrowser = "/usr/bin/browser";
constexpr const char* kAddress = "192.0.2.1";

class HostNamesTest : public ::testing::Test {
 protected:
  void learn(const Owner& owner, const std::string& name,
             const std::vector<std::string>& addresses = {kAddress},
             std::chrono::seconds timeToLive = 60s) {
    std::vector<ResolvedAddress> resolved;
    for (const std::string& address : addresses) {
      resolved.push_back({addressOf(address), timeToLive});
    }
    names_.learn(owner, name, resolved, now_);
  }

  std::optional<HostNames::Found> find(std::optional<uid_t> user, const std::string& identifier,
                                       const std::string& address = kAddress) {
    return names_.find(user, identifier, addressOf(address, 443), now_);
  }
  // Empty for none.
  std::string name(const std::string& address = kAddress) {
    const auto found = find(kUser, kBrowser, address);
    return found ? found->name : "";
  }

  HostNames names_{100};
  HostNames::Clock::time_point now_{1h};
  const Owner browser_ = Owner::application(kUser, kBrowser);
};

TEST_F(HostNamesTest, ANameIsForTheApplicationThatHasLookedItUp) {
  learn(browser_, "a.example");
  EXPECT_EQ(name(), "a.example");
  EXPECT_FALSE(find(kUser, "/usr/bin/other"));
  EXPECT_FALSE(find(kOther, kBrowser));
  EXPECT_FALSE(find(std::nullopt, kBrowser));
  EXPECT_EQ(name("192.0.2.2"), "");
}

TEST_F(HostNamesTest, TheNamesOfAUserMayBeAnyOfItsApplications) {
  learn(Owner::application(kUser, ""), "a.example");
  EXPECT_EQ(name(), "a.example");
  EXPECT_TRUE(find(kUser, ""));
  EXPECT_FALSE(find(kOther, kBrowser));
  learn(browser_, "a.example");
  EXPECT_EQ(name(), "a.example");
  learn(Owner::user(kUser), "b.example");
  EXPECT_EQ(name(), "");
}

TEST_F(HostNamesTest, TheNamesOfTheMachineAreForThoseWithoutTheirOwn) {
  learn(Owner::machine(), "m.example");
  EXPECT_EQ(name(), "m.example");
  EXPECT_TRUE(find(std::nullopt, ""));
  learn(browser_, "a.example");
  EXPECT_EQ(name(), "a.example");
  EXPECT_EQ(find(kOther, kBrowser)->name, "m.example");
}

TEST_F(HostNamesTest, OfSeveralNamesNoneIsUsed) {
  learn(browser_, "a.example", {kAddress}, 40s);
  learn(browser_, "b.example", {kAddress}, 60s);
  learn(Owner::machine(), "m.example");
  EXPECT_EQ(name(), "");
  now_ += 40s;
  EXPECT_EQ(name(), "b.example");
}

TEST_F(HostNamesTest, CountsMoreNamesThanItLists) {
  for (int index = 0; index < 20; ++index) {
    learn(browser_, "host" + std::to_string(index) + ".example", {kAddress}, 100s);
  }
  EXPECT_EQ(name(), "");
  now_ += 99s;
  learn(browser_, "last.example", {kAddress}, 100s);
  EXPECT_EQ(name(), "");
  now_ += 1s;
  learn(browser_, "last.example", {kAddress}, 100s);
  EXPECT_EQ(name(), "last.example");
}

TEST_F(HostNamesTest, NamesExpireAfterHalfAMinuteAtTheEarliest) {
  learn(browser_, "a.example", {kAddress}, 0s);
  now_ += 30s - 1ns;
  EXPECT_EQ(name(), "a.example");
  now_ += 1ns;
  EXPECT_EQ(name(), "");
  EXPECT_EQ(names_.size(), 0U);
}

TEST_F(HostNamesTest, NamesExpireAfterAnHourAtTheLatest) {
  learn(browser_, "a.example", {kAddress}, 24h);
  now_ += 1h - 1ns;
  EXPECT_EQ(name(), "a.example");
  now_ += 1ns;
  EXPECT_EQ(name(), "");
}

TEST_F(HostNamesTest, ARepeatedAnswerExtendsALifeAndNeverShortensIt) {
  learn(browser_, "a.example", {kAddress}, 60s);
  now_ += 50s;
  learn(browser_, "a.example", {kAddress}, 60s);
  learn(browser_, "a.example", {kAddress}, 30s);
  now_ += 59s;
  EXPECT_EQ(name(), "a.example");
  EXPECT_EQ(names_.size(), 1U);
}

TEST_F(HostNamesTest, AddressesOfANameExpireSeparately) {
  learn(browser_, "a.example", {"192.0.2.1"}, 40s);
  learn(browser_, "a.example", {"192.0.2.2"}, 60s);
  now_ += 50s;
  EXPECT_EQ(name("192.0.2.1"), "");
  EXPECT_EQ(name("192.0.2.2"), "a.example");
}

TEST_F(HostNamesTest, AddressesThatNoProxyCanReachAreNotLearned) {
  for (const std::string address :
       {"127.0.0.1", "127.9.9.9", "0.0.0.0", "169.254.1.1", "224.0.0.1", "255.255.255.255",
        "::", "::1", "fe80::1", "ff02::1", "::ffff:192.0.2.1"}) {
    learn(browser_, "a.example", {address});
    EXPECT_EQ(name(address), "") << address;
  }
  EXPECT_EQ(names_.size(), 0U);
  learn(browser_, "a.example", {"127.0.0.1", "192.168.0.1"});
  EXPECT_EQ(name("192.168.0.1"), "a.example");
}

TEST_F(HostNamesTest, ANameThatJoinsPublicAndPrivateAddressesNamesNothing) {
  for (const std::string local : {"10.0.0.1", "172.16.0.1", "192.168.0.1", "100.64.0.1"}) {
    const std::string rebound = "to" + local + ".example";
    learn(browser_, rebound, {"192.0.2.7"});
    EXPECT_EQ(name("192.0.2.7"), rebound);
    learn(browser_, rebound, {local});
    EXPECT_EQ(name("192.0.2.7"), "");
    EXPECT_EQ(name(local), "");
    names_.forget(browser_, rebound);
  }
}

TEST_F(HostNamesTest, ARebindingNameStaysSuspectAsLongAsItLives) {
  learn(browser_, "a.example", {"192.0.2.1"}, 100s);
  learn(browser_, "a.example", {"10.0.0.1"}, 30s);
  now_ += 50s;
  EXPECT_EQ(name("192.0.2.1"), "");
  now_ += 50s;
  learn(browser_, "a.example", {"192.0.2.1"}, 100s);
  EXPECT_EQ(name("192.0.2.1"), "a.example");
}

TEST_F(HostNamesTest, RebindingIsNoticedAcrossTheNamesOfAUser) {
  learn(browser_, "a.example", {"192.0.2.1"});
  learn(Owner::user(kUser), "a.example", {"10.0.0.1"});
  EXPECT_EQ(name("10.0.0.1"), "");
  EXPECT_EQ(name("192.0.2.1"), "");
}

TEST_F(HostNamesTest, AHostMayHaveAPrivateAndAPublicFamily) {
  learn(browser_, "nas.example", {"192.168.0.2", "2001:db8::2"});
  EXPECT_EQ(name("192.168.0.2"), "nas.example");
  EXPECT_EQ(name("2001:db8::2"), "nas.example");
  learn(browser_, "both.example", {"fd00::1", "2001:db8::3"});
  EXPECT_EQ(name("fd00::1"), "");
}

TEST_F(HostNamesTest, AnUnresolvableNameIsRememberedForItsLife) {
  learn(browser_, "a.example", {kAddress}, 60s);
  const auto found = find(kUser, kBrowser);
  EXPECT_TRUE(found->isResolvable);
  names_.setUnresolvable(*found, now_);
  EXPECT_FALSE(find(kUser, kBrowser)->isResolvable);
  // The user's other applications use the same proxy.
  learn(Owner::application(kUser, "/usr/bin/other"), "a.example");
  EXPECT_FALSE(find(kUser, "/usr/bin/other")->isResolvable);
  learn(Owner::application(kOther, kBrowser), "a.example");
  EXPECT_TRUE(find(kOther, kBrowser)->isResolvable);
  now_ += 60s;
  learn(browser_, "a.example");
  EXPECT_TRUE(find(kUser, kBrowser)->isResolvable);
}

TEST_F(HostNamesTest, AForgottenNameNamesNothing) {
  learn(browser_, "a.example");
  names_.forget(browser_, "a.example");
  names_.forget(browser_, "a.example");
  EXPECT_EQ(name(), "");
  EXPECT_EQ(names_.size(), 0U);
}

TEST_F(HostNamesTest, TheLeastRecentlyUsedNameOfTheUserWithMostIsDropped) {
  learn(Owner::application(kOther, kBrowser), "kept.example", {"198.51.100.1"});
  for (int index = 0; index < 99; ++index) {
    learn(browser_, "host" + std::to_string(index) + ".example",
          {"192.0.2." + std::to_string(index)});
  }
  EXPECT_EQ(name("192.0.2.0"), "host0.example");
  learn(browser_, "new.example", {"203.0.113.1"});
  EXPECT_EQ(names_.size(), 100U);
  EXPECT_EQ(name("192.0.2.0"), "host0.example");
  EXPECT_EQ(name("192.0.2.1"), "");
  EXPECT_EQ(find(kOther, kBrowser, "198.51.100.1")->name, "kept.example");
}

TEST_F(HostNamesTest, ByDefaultTwentyThousandNamesFit) {
  HostNames names;
  constexpr int kCount = 20'000;
  const auto hostName = [](int index) { return "host" + std::to_string(index) + ".example"; };
  const auto addressOfHost = [](int index) {
    return addressOf("192." + std::to_string(index / 65536) + "." +
                     std::to_string(index / 256 % 256) + "." + std::to_string(index % 256));
  };
  for (int index = 0; index <= kCount; ++index) {
    const std::vector<ResolvedAddress> resolved{{addressOfHost(index), 60s}};
    names.learn(browser_, hostName(index), resolved, now_);
  }
  EXPECT_EQ(names.size(), static_cast<std::size_t>(kCount));
  EXPECT_FALSE(names.find(kUser, kBrowser, addressOfHost(0), now_));
  for (int index = 1; index <= kCount; ++index) {
    const auto found = names.find(kUser, kBrowser, addressOfHost(index), now_);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->name, hostName(index));
  }
}

TEST_F(HostNamesTest, ANameKeepsItsLatestAddresses) {
  learn(browser_, "a.example", {"203.0.113.1"}, 30s);
  for (int index = 0; index < 32; ++index) {
    learn(browser_, "a.example", {"192.0.2." + std::to_string(index)});
  }
  EXPECT_EQ(name("203.0.113.1"), "");
  EXPECT_EQ(name("192.0.2.0"), "a.example");
  EXPECT_EQ(name("192.0.2.31"), "a.example");
}

}  // namespace
}  // namespace ostravel::linuxplatform
