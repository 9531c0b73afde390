#include "Platform/Linux/Interception/LeftFlows.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

class Lines final : public platform::Log {
 public:
  std::vector<std::string> lines;

 protected:
  void write(platform::LogLevel /*level*/, std::string_view format,
             std::span<const platform::LogArgument> arguments) override {
    lines.push_back(platform::formatLogLine(format, arguments));
  }
};

class LeftFlowsTest : public testing::Test {
 protected:
  const std::shared_ptr<Lines> log_ = std::make_shared<Lines>();
  LeftFlows left_{log_};
  const LeftFlows::TimePoint start_{};
};

TEST_F(LeftFlowsTest, LogsNothingWithoutLeftFlows) {
  left_.report(start_);
  EXPECT_TRUE(log_->lines.empty());
}

TEST_F(LeftFlowsTest, NamesReasonCountAndUser) {
  left_.add(LeaveReason::handshakeShare, 1000);
  left_.add(LeaveReason::handshakeShare, 1001);
  left_.add(LeaveReason::kernelSocket, std::nullopt);
  left_.report(start_);
  EXPECT_EQ(log_->lines,
            (std::vector<std::string>{"OstravelProxy: Flows left to the system "
                                      "reason=handshake_share count=2 last_user=1001",
                                      "OstravelProxy: Flows left to the system "
                                      "reason=kernel_socket count=1 last_user=unknown"}));
  EXPECT_EQ(left_.count(LeaveReason::handshakeShare), 2U);
}

TEST_F(LeftFlowsTest, ReportsAReasonAtMostOnceAMinute) {
  left_.add(LeaveReason::onTrial, 7);
  left_.report(start_);
  left_.add(LeaveReason::onTrial, 7);
  left_.report(start_ + 59s);
  EXPECT_EQ(log_->lines.size(), 1U);
  left_.add(LeaveReason::onTrial, 7);
  left_.report(start_ + 60s);
  ASSERT_EQ(log_->lines.size(), 2U);
  EXPECT_NE(log_->lines[1].find("count=2"), std::string::npos);
}

TEST_F(LeftFlowsTest, EveryReasonHasAUniqueName) {
  std::set<std::string_view> names;
  for (std::size_t index = 0; index < kLeaveReasons; ++index) {
    names.insert(nameOf(static_cast<LeaveReason>(index)));
  }
  EXPECT_EQ(names.size(), kLeaveReasons);
  EXPECT_FALSE(names.contains("unknown"));
}

}  // namespace
}  // namespace ostravel::linuxplatform
