#include "Platform/Linux/Services/LogCatalogue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

#include "Platform/Linux/Services/LogLine.h"

namespace ostravel::linuxplatform {
namespace {

TEST(LogCatalogueTest, AnIdentifierHas32HexadecimalDigits) {
  const std::string_view id = messageIDOf(kDroppedLinesFormat);
  EXPECT_EQ(id.size(), 32U);
  EXPECT_TRUE(std::ranges::all_of(id, [](char digit) {
    return (digit >= '0' && digit <= '9') || (digit >= 'a' && digit <= 'f');
  }));
}

TEST(LogCatalogueTest, LinesOfOneMeaningShareIt) {
  EXPECT_EQ(messageIDOf("OstravelProxy: App read error: %{public}s"),
            messageIDOf("OstravelProxy: Proxy write error: %{public}s"));
  EXPECT_NE(messageIDOf("OstravelProxy: Handshake successful."),
            messageIDOf("OstravelProxy: CONNECT handshake timed out"));
}

TEST(LogCatalogueTest, OtherLinesHaveNone) {
  EXPECT_EQ(messageIDOf("OstravelProxy: %{public}s"), "");
}

}  // namespace
}  // namespace ostravel::linuxplatform
