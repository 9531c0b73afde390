#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "Tests/Extension/Support/TunnelTest.h"

namespace ostravel {
namespace {

class TunnelLogFields : public test::TunnelTest {
 protected:
  void answer(std::string_view text) {
    make();
    startAndConnect();
    proxy().send(text);
    simulation_.run();
  }
  // What the line is about: flow, application and code.
  std::string factsOf(std::string_view line) {
    const auto& records = simulation_.logRecords();
    const auto found = std::find_if(records.begin(), records.end(),
                                    [line](const auto& record) { return record.line == line; });
    return found == records.end() ? "(no such line)"
                                  : found->flowID + "|" + found->application + "|" + found->code;
  }
};

TEST_F(TunnelLogFields, RoutineLinesDoNotNameTheApplication) {
  make();
  establish();
  EXPECT_EQ(factsOf("OstravelProxy: Sending CONNECT handshake (details private)"),
            "FLOW||extension.connect_handshake_started");
  EXPECT_EQ(factsOf("OstravelProxy: Handshake successful."),
            "FLOW||extension.connect_handshake_succeeded");
}

TEST_F(TunnelLogFields, ARefusalNamesFlowAndApplication) {
  answer("HTTP/1.1 403 Forbidden\r\n\r\n");
  EXPECT_EQ(factsOf("OstravelProxy: Handshake failed (response status not 200)"),
            "FLOW|com.example.app|extension.connect_handshake_non_200");
}

TEST_F(TunnelLogFields, AnAnswerThatIsNotHTTPNamesFlowAndApplication) {
  answer("\xFF\xFE\r\n\r\n");
  EXPECT_EQ(factsOf("OstravelProxy: Handshake failed (invalid response)"),
            "FLOW|com.example.app|extension.connect_handshake_invalid");
}

TEST_F(TunnelLogFields, ARequestThatCannotBeSentNamesFlowAndApplication) {
  make();
  proxy().failWrites(test::someError());
  startAndConnect();
  EXPECT_EQ(factsOf("OstravelProxy: Error writing CONNECT: Something broke"),
            "FLOW|com.example.app|extension.connect_handshake_write_failed");
}

TEST_F(TunnelLogFields, ATimeoutNamesFlowAndApplication) {
  make({.handshakeTimeout = 0.0});
  tunnel_->start();
  simulation_.run();
  EXPECT_EQ(factsOf("OstravelProxy: CONNECT handshake timed out"),
            "FLOW|com.example.app|extension.connect_handshake_timed_out");
}

TEST_F(TunnelLogFields, AnErrorOfATunnelNamesTheFlowOnly) {
  make();
  establish();
  proxy().failReads(test::someError());
  simulation_.run();
  EXPECT_EQ(factsOf("OstravelProxy: Proxy read error: Something broke"),
            "FLOW||extension.tunnel_closed");
}

}  // namespace
}  // namespace ostravel
