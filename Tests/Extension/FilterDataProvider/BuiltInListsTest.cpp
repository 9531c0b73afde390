#include "Extension/FilterDataProvider/BuiltInLists.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

namespace ostravel {
namespace {

// One letter per entry: 's' for a suffix entry (with a leading dot), 'e' for an exact one.
std::string formsOf(const std::vector<std::string>& entries) {
  std::string forms;
  for (const auto& entry : entries) {
    forms += entry.starts_with('.') ? 's' : 'e';
  }
  return forms;
}

bool isHostName(std::string_view entry) {
  if (entry.starts_with('.')) {
    entry.remove_prefix(1);
  }
  const auto isAllowed = [](unsigned char letter) {
    return std::islower(letter) != 0 || std::isdigit(letter) != 0 || letter == '-' || letter == '.';
  };
  return entry.find('.') != std::string_view::npos && !entry.starts_with('.') &&
         !entry.ends_with('.') && entry.find("..") == std::string_view::npos &&
         std::all_of(entry.begin(), entry.end(), isAllowed);
}

// Repeated here, so that every change of the list is deliberate.
TEST(BuiltInBypassAppIds, AreTheseTwentyThreeWithTheirCapitals) {
  EXPECT_EQ(built_in::bypassAppIds(), (std::unordered_set<std::string>{
                                          "com.ostravel.proxy-sidecar",
                                          "com.ostravel.helper",
                                          "com.ostravel.desktop",
                                          "com.ostravel.desktop.extension",
                                          "com.ostravel.desktop.extensionhost",
                                          "com.apple.mDNSResponder",
                                          "com.apple.nsurlsessiond",
                                          "com.apple.trustd",
                                          "com.apple.geod",
                                          "com.apple.cloudd",
                                          "com.apple.WebCore",
                                          "com.cisco.anyconnect",
                                          "com.mullvad.vpn",
                                          "com.nordvpn.osx",
                                          "com.ivpn.client",
                                          "com.tunnelbear.mac.TunnelBear",
                                          "io.tailscale.ipn.macos",
                                          "net.sparklabs.Viscosity",
                                          "com.fortinet.forticlient",
                                          "com.fortinet.forticlient.vpn",
                                          "com.fortinet.FortiClient",
                                          "com.fortinet.forticlient.macos",
                                          "com.fortinet.forticlient.fct_vulnerabilities",
                                      }));
  EXPECT_EQ(built_in::bypassAppIds().size(), 23U);
}

TEST(BuiltInHardBypassDomains, HaveTheseFormsInThisOrder) {
  EXPECT_EQ(formsOf(built_in::hardBypassDomains()),
            "sssss"   // platform services, certificate authorities
            "ee"      // cloud relay ingress, cloud gateway
            "esesee"  // application store, client signalling
            "ee"      // conferencing client's static content
            "se"      // code editor
            "sese"    // video and image delivery
            "ese"     // fonts, static content
            "sesese"  // tag manager, analytics, advertising
            "sese"    // captcha
            "e"       // cookie consent
            "sese");  // media delivery
  EXPECT_EQ(built_in::hardBypassDomains().size(), 39U);
}

TEST(BuiltInRealtimeMediaDomains, HaveTheseFormsInThisOrder) {
  EXPECT_EQ(formsOf(built_in::realtimeMediaDomains()), "eesesesesesesesese");
  EXPECT_EQ(built_in::realtimeMediaDomains().size(), 18U);
}

class BuiltInDomains : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(BuiltInDomains, AreLowerCaseHostNames) {
  for (const auto& entry : GetParam()) {
    EXPECT_TRUE(isHostName(entry)) << entry;
  }
}

TEST_P(BuiltInDomains, AreEachListedOnce) {
  auto entries = GetParam();
  std::sort(entries.begin(), entries.end());

  EXPECT_EQ(std::adjacent_find(entries.begin(), entries.end()), entries.end());
}

INSTANTIATE_TEST_SUITE_P(Lists, BuiltInDomains,
                         testing::Values(built_in::hardBypassDomains(),
                                         built_in::realtimeMediaDomains()));

// Where two neighbouring entries are the apex and the subdomains of one service.
void expectPair(const std::vector<std::string>& entries, std::size_t suffixNumber,
                std::size_t exactNumber) {
  EXPECT_EQ(entries.at(suffixNumber - 1), "." + entries.at(exactNumber - 1));
}

TEST(BuiltInHardBypassDomains, CoverApexAndSubdomainsWhereAServiceNeedsBoth) {
  const auto entries = built_in::hardBypassDomains();

  expectPair(entries, 9, 8);
  expectPair(entries, 11, 10);
  for (const std::size_t suffix : {18U, 20U, 23U, 25U, 27U, 29U, 31U, 33U, 36U, 38U}) {
    expectPair(entries, suffix, suffix + 1);
  }
}

TEST(BuiltInRealtimeMediaDomains, CoverApexAndSubdomainsWhereAServiceNeedsBoth) {
  const auto entries = built_in::realtimeMediaDomains();

  for (const std::size_t exact : {2U, 4U, 6U}) {
    expectPair(entries, exact + 1, exact);
  }
  for (const std::size_t suffix : {9U, 11U, 13U, 15U, 17U}) {
    expectPair(entries, suffix, suffix + 1);
  }
}

TEST(BuiltInInterceptedPorts, AreTheseInThisOrder) {
  EXPECT_EQ(built_in::interceptedPorts(),
            (std::vector<std::string>{"80", "443", "11434", "1234", "8000", "5000", "7860"}));
}

}  // namespace
}  // namespace ostravel
