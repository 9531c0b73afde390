#include "Extension/ProxyTunnelCore/MonitoringLossReport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>

namespace ostravel {
namespace {

constexpr double kStart = 1763271815.0;
constexpr double kMinute = MonitoringLossReport::kSecondsBetweenLines;
const std::string kPath = "/run/m.sock";

platform::Error refused() {
  return platform::posixError(ECONNREFUSED, "Failed to connect to monitoring socket");
}

std::string line(int count, const std::string& reason) {
  return "OstravelProxy monitoring events lost: " + std::to_string(count) + " for " + kPath + ": " +
         reason;
}

TEST(MonitoringLossReport, NamesThePathTheReasonAndTheCount) {
  MonitoringLossReport report;

  EXPECT_EQ(report.lost(kPath, refused(), kStart), line(1, "no program listens there"));
}

TEST(MonitoringLossReport, GivesTheReasonInWords) {
  const auto reason = [](const platform::Error& error) {
    return MonitoringLossReport().lost(kPath, error, kStart);
  };

  EXPECT_EQ(reason(platform::posixError(ENOENT, "Failed")), line(1, "there is no socket"));
  EXPECT_EQ(reason(platform::posixError(EACCES, "Failed")), line(1, "Permission denied"));
  EXPECT_EQ(reason({"OstravelProxy", 1101, "Monitoring socket path too long"}),
            line(1, "Monitoring socket path too long"));
}

TEST(MonitoringLossReport, KeepsSilentUntilAMinuteHasPassed) {
  MonitoringLossReport report;
  report.lost(kPath, refused(), kStart);

  EXPECT_EQ(report.lost(kPath, refused(), kStart + 1.0), std::nullopt);
  EXPECT_EQ(report.lost(kPath, refused(), kStart + kMinute - 0.001), std::nullopt);
  EXPECT_EQ(report.lost(kPath, refused(), kStart + kMinute), line(3, "no program listens there"));
}

TEST(MonitoringLossReport, CountsWhatWasLostBeforeDeliveryResumed) {
  MonitoringLossReport report;
  report.lost(kPath, refused(), kStart);
  report.lost(kPath, refused(), kStart + 1.0);

  EXPECT_EQ(report.delivered(kPath, kStart + 2.0), std::nullopt);
  EXPECT_EQ(report.delivered(kPath, kStart + kMinute), line(1, "events are delivered again"));
  EXPECT_EQ(report.delivered(kPath, kStart + 2.0 * kMinute), std::nullopt);
}

TEST(MonitoringLossReport, SaysNothingWhenNothingWasLost) {
  EXPECT_EQ(MonitoringLossReport().delivered(kPath, kStart), std::nullopt);
}

TEST(MonitoringLossReport, IsNotSilencedByAClockThatIsSetBack) {
  MonitoringLossReport report;
  report.lost(kPath, refused(), kStart);

  EXPECT_EQ(report.lost(kPath, refused(), kStart - 3600.0), line(1, "no program listens there"));
}

}  // namespace
}  // namespace ostravel
