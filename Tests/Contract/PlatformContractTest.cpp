#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <regex>
#include <set>
#include <string>
#include <string_view>

#include "Platform/Interface/Platform.h"
#include "Tests/Contract/ContractTest.h"

namespace ostravel::contract {
namespace {

using namespace std::chrono_literals;
using namespace std::string_view_literals;

class PlatformContractTest : public ContractTest {};

TEST_P(PlatformContractTest, TheClockAdvancesAsTimePasses) {
  // The machine may be busy between any two of these lines, so the other clock is read outside and
  // inside.
  const auto outerStart = environment_->now();
  const auto before = platform().clock().secondsSince1970();
  const auto innerStart = environment_->now();
  environment_->spend(50ms);
  const auto innerEnd = environment_->now();
  const auto shown = platform().clock().secondsSince1970() - before;
  const auto outerEnd = environment_->now();
  const auto seconds = [](std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
  };
  // The clock may advance in steps, and be adjusted.
  constexpr double kTolerance = 0.015;
  EXPECT_GE(shown, seconds(innerEnd - innerStart) - kTolerance);
  EXPECT_LE(shown, seconds(outerEnd - outerStart) + kTolerance);
}

TEST_P(PlatformContractTest, TheClockCountsFrom1970) {
  constexpr double k2020 = 1'577'836'800.0;
  constexpr double k2120 = 4'733'510'400.0;
  EXPECT_GT(platform().clock().secondsSince1970(), k2020);
  EXPECT_LT(platform().clock().secondsSince1970(), k2120);
}

TEST_P(PlatformContractTest, IdentifiersHaveTheirForm) {
  const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  for (int i = 0; i < 100; ++i) {
    const auto uuid = platform().uuidSource().randomUUID();
    EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
  }
}

TEST_P(PlatformContractTest, IdentifiersAreUnique) {
  std::set<std::string> seen;
  for (int i = 0; i < 10000; ++i) {
    seen.insert(platform().uuidSource().randomUUID());
  }
  EXPECT_EQ(seen.size(), 10000U);
}

TEST_P(PlatformContractTest, TextIsLowercasedAsUnicodeSays) {
  const auto& text = platform().text();
  EXPECT_EQ(text.lowercased("WWW.Example.COM"), "www.example.com");
  EXPECT_EQ(text.lowercased("B\u00dcCHER"), "b\u00fccher");
  EXPECT_EQ(text.lowercased("\u0130"), "i\u0307");
  EXPECT_EQ(text.lowercased("\u039f\u03a3"), "\u03bf\u03c2");
  EXPECT_EQ(text.lowercased(""), "");
}

TEST_P(PlatformContractTest, TextIsTrimmedOfUnicodeWhiteSpace) {
  const auto& text = platform().text();
  EXPECT_EQ(text.trimmed(" \t\r\n com.example \v\f"), "com.example");
  EXPECT_EQ(text.trimmed("\u00a0\u2003\u3000x\u2028\u2029\u0085"), "x");
  EXPECT_EQ(text.trimmed(" \n"), "");
}

TEST_P(PlatformContractTest, TextThatIsNotUTF8IsAccepted) {
  const auto& text = platform().text();
  EXPECT_EQ(text.trimmed(" \xff\xc3 "sv), "\xff\xc3"sv);
  EXPECT_EQ(text.lowercased("A\xffZ"sv).front(), 'a');
}

TEST_P(PlatformContractTest, LogHandlesAcceptEveryLineAtEveryLevel) {
  const auto log = platform().makeLog("com.ostravel.contract", "Contract");
  const std::string longText(100000, 'x');
  const auto other = platform().makeLog("com.ostravel.contract", "Other");
  EXPECT_NE(log, nullptr);
  EXPECT_NE(log, other);
  for (const auto text :
       {"plain"sv, "100%"sv, ""sv, "NUL\0 inside"sv, std::string_view(longText)}) {
    log->debug("contract: %{public}s", {text});
    log->info("contract: %{public}s %{public}d", {text, std::int64_t{-1}});
    log->standard(text);
    log->error("contract: %{public}s", {text});
    platform().defaultLog().error("contract: %{public}s", {text});
    platform().systemLog(text);
  }
}

TEST_P(PlatformContractTest, ALogHandleMayBeUsedInItems) {
  const auto queue = platform().makeQueue("log", platform::DispatchQueueKind::concurrent);
  std::weak_ptr<platform::Log> weakLog;
  {
    const auto log = platform().makeLog("com.ostravel.contract", "Contract");
    weakLog = log;
    for (std::int64_t i = 0; i < 100; ++i) {
      queue->async([log, i] { log->info("contract: item %{public}d", {i}); });
    }
  }
  EXPECT_TRUE(waitUntil([&] { return weakLog.expired(); }));
  queue->syncBarrier([] {});
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Contract, PlatformContractTest, ::testing::ValuesIn(contractPlatforms()),
                         platformName);

}  // namespace ostravel::contract
