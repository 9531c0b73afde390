#include "Extension/FilterDataProvider/DomainList.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Platform/Shared/ICUTextServices.h"

namespace ostravel {
namespace {

class DomainListTest : public testing::Test {
 protected:
  bool matches(const std::string& host) const { return list_.matches(normalisedHost(host, text_)); }

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

  EXPECT_EQ(normalisedHost(GetParam().host, text), GetParam().normalised);
}

INSTANTIATE_TEST_SUITE_P(Hosts, NormalisedHost,
                         testing::Values(HostCase{"example.com", "example.com"},
                                         HostCase{"Example.COM", "example.com"},
                                         HostCase{"example.com.", "example.com"},
                                         HostCase{"example.com...", "example.com"},
                                         HostCase{".example.com", "example.com"},
                                         HostCase{"..a..b..", "a..b"}, HostCase{"", ""},
                                         HostCase{".", ""}, HostCase{"....", ""},
                                         HostCase{"a", "a"}, HostCase{" a ", " a "},
                                         HostCase{"B\u00DCCHER.example", "b\u00FCcher.example"}));

}  // namespace
}  // namespace ostravel
