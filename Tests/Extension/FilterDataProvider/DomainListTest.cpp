#include "Extension/FilterDataProvider/DomainList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Platform/Shared/ICUTextServices.h"

namespace ostravel {
namespace {

class DomainListTest : public testing::Test {
 protected:
  bool matches(const std::string& host) const {
    return list_.matches(ostravel::NormalisedHost(host, text_).text());
  }

  platform::ICUTextServices text_;
  DomainList list_{{".example.com", "exact.example.org", ".Capital.Example", "UPPER.EXAMPLE"},
                   text_};
};

TEST_F(DomainListTest, MatchesSubdomainsOfASuffixEntry) {
  EXPECT_TRUE(matches("www.example.com"));
  EXPECT_TRUE(matches("a.b.example.com"));
}

TEST_F(DomainListTest, DoesNotMatchTheBareDomainOfASuffixEntry) {
  EXPECT_FALSE(matches("example.com"));
}

TEST_F(DomainListTest, DoesNotMatchALongerNameWithoutTheDot) {
  EXPECT_FALSE(matches("notexample.com"));
  EXPECT_FALSE(matches("www.notexample.com"));
}

TEST_F(DomainListTest, DoesNotMatchASuffixInTheMiddle) {
  EXPECT_FALSE(matches("www.example.com.evil.org"));
}

TEST_F(DomainListTest, MatchesOnlyTheEqualHostOfAnExactEntry) {
  EXPECT_TRUE(matches("exact.example.org"));
  EXPECT_FALSE(matches("www.exact.example.org"));
  EXPECT_FALSE(matches("example.org"));
  EXPECT_FALSE(matches("xexact.example.org"));
}

TEST_F(DomainListTest, IgnoresCaseAndARootDot) {
  EXPECT_TRUE(matches("WwW.eXaMpLe.CoM."));
  EXPECT_TRUE(matches("EXACT.Example.Org."));
}

TEST_F(DomainListTest, IgnoresLeadingDots) {
  EXPECT_TRUE(matches("...exact.example.org"));
  EXPECT_FALSE(matches("..example.com"));
}

TEST_F(DomainListTest, FindsEntriesOfAnyLength) {
  const std::string label(70, 'a');
  const DomainList list({"." + label + ".com", label, ".", ""}, text_);
  EXPECT_TRUE(list.matches("www." + label + ".com"));
  EXPECT_FALSE(list.matches(label + ".com"));
  EXPECT_TRUE(list.matches(label));
  EXPECT_FALSE(list.matches(label + "a"));
  EXPECT_TRUE(list.matches(""));
  EXPECT_TRUE(list.matches("www."));
  EXPECT_FALSE(list.matches("www"));
}

// The rule as it is defined, for every entry in turn.
TEST_F(DomainListTest, MatchesLikeAWalkOverItsEntries) {
  const std::vector<std::string> entries{".b", "b", ".a.b", "a.b", "..a", ".", "a..b", ""};
  const DomainList list(entries, text_);
  std::vector<std::string> hosts{""};
  // All texts of up to six of these characters.
  for (std::size_t index = 0; index < hosts.size(); ++index) {
    const std::string host = hosts[index];
    if (host.size() < 6) {
      for (const char next : {'a', 'b', '.'}) {
        hosts.push_back(host + next);
      }
    }
    const bool isListed = std::any_of(entries.begin(), entries.end(), [&](const auto& entry) {
      return entry.starts_with('.') ? host.ends_with(entry) : host == entry;
    });
    EXPECT_EQ(list.matches(host), isListed) << host;
  }
}

TEST_F(DomainListTest, LowerCasesItsEntries) {
  EXPECT_TRUE(matches("www.capital.example"));
  EXPECT_TRUE(matches("upper.example"));
}

TEST_F(DomainListTest, MatchesNothingWhenEmpty) {
  const DomainList empty({}, text_);

  EXPECT_FALSE(empty.matches(""));
  EXPECT_FALSE(empty.matches("example.com"));
}

TEST_F(DomainListTest, TreatsAddressLiteralsAndTheUnknownHostAsPlainText) {
  EXPECT_FALSE(matches("192.0.2.10"));
  EXPECT_FALSE(matches("2001:db8::1"));
  EXPECT_FALSE(matches("unknown"));
  EXPECT_FALSE(matches(""));
}

struct HostCase {
  const char* host;
  const char* normalised;
};

class NormalisedHost : public testing::TestWithParam<HostCase> {};

TEST_P(NormalisedHost, IsLowerCaseWithoutOuterDots) {
  const platform::ICUTextServices text;

  EXPECT_EQ(ostravel::NormalisedHost(GetParam().host, text).text(), GetParam().normalised);
}

INSTANTIATE_TEST_SUITE_P(
    Hosts, NormalisedHost,
    testing::Values(HostCase{"example.com", "example.com"}, HostCase{"Example.COM", "example.com"},
                    HostCase{"example.com.", "example.com"},
                    HostCase{"example.com...", "example.com"},
                    HostCase{".example.com", "example.com"}, HostCase{"..a..b..", "a..b"},
                    HostCase{"", ""}, HostCase{".", ""}, HostCase{"....", ""}, HostCase{"a", "a"},
                    HostCase{"A.b", "a.b"}, HostCase{"Z.y", "z.y"}, HostCase{"@.[", "@.["},
                    HostCase{" a ", " a "},
                    HostCase{"B\u00DCCHER.example", "b\u00FCcher.example"}));

}  // namespace
}  // namespace ostravel
