#include "Companion/Monitor/Web/ControlPoller.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <chrono>
#include <future>
#include <string>
#include <utility>
#include <vector>

namespace ostravel::companion {
namespace {

using namespace std::chrono_literals;

// Plays the extension: answers as scripted, and keeps the requests.
class ControlPollerTest : public ::testing::Test {
 protected:
  ControlPoller::Ask ask() {
    return [this](JSONHandle request) -> ControlClient::Answer {
      const std::string name = json_string_value(json_object_get(request.get(), "request"));
      if (name == "status") {
        ++rounds_;
        if (rounds_ == script_.size() + 1) {
          done_.set_value();
        }
        return JSONHandle(
            json_pack("{s:{s:b,s:s}}", "proxying", "active", 1, "message", "Proxied."));
      }
      if (rounds_ > script_.size()) {
        return ControlClient::Failure{"not_running", "the extension is not running"};
      }
      after_.push_back(json_integer_value(json_object_get(request.get(), "after")));
      updatedAfter_.push_back(json_number_value(json_object_get(request.get(), "updated_after")));
      return JSONHandle(json_loads(script_[rounds_ - 1].c_str(), 0, nullptr));
    };
  }

  void play(std::vector<std::string> script) {
    script_ = std::move(script);
    const ControlPoller poller(state_, ask(), 1ms);
    ASSERT_EQ(done_.get_future().wait_for(30s), std::future_status::ready);
  }

  LiveState state_;
  std::vector<std::string> script_;
  std::size_t rounds_ = 0;
  std::vector<json_int_t> after_;
  std::vector<double> updatedAfter_;
  std::promise<void> done_;
};

std::string answer(int last, double now, int sequence, int startedAt = 50) {
  return "{\"last\":" + std::to_string(last) + ",\"now\":" + std::to_string(now) +
         ",\"started_at\":" + std::to_string(startedAt) + ",\"decisions\":[" +
         (sequence == 0 ? ""
                        : "{\"sequence\":" + std::to_string(sequence) +
                              ",\"time\":1,\"application\":\"a\",\"destination\":\"h:1\","
                              "\"action\":\"direct\",\"reason\":\"gate_closed\","
                              "\"outcome\":\"direct\"}") +
         "]}";
}

TEST_F(ControlPollerTest, FollowsDecisions) {
  play({answer(5, 100.0, 5), answer(5, 101.0, 0), answer(6, 102.0, 6), answer(6, 103.0, 0)});
  EXPECT_EQ(after_, (std::vector<json_int_t>{0, 5, 5, 6}));
  EXPECT_EQ(updatedAfter_, (std::vector<double>{0.0, 99.0, 100.0, 101.0}));
  const std::string whole = state_.whole().json;
  EXPECT_NE(whole.find("\"#5\""), std::string::npos);
  EXPECT_NE(whole.find("\"#6\""), std::string::npos);
  EXPECT_NE(whole.find("Proxied."), std::string::npos);
}

TEST_F(ControlPollerTest, StartsOverWithAnotherExtension) {
  play({answer(500, 100.0, 500), answer(2, 101.0, 0), answer(2, 102.0, 2), answer(2, 103.0, 0)});
  EXPECT_EQ(after_, (std::vector<json_int_t>{0, 500, 0, 2}));
}

TEST_F(ControlPollerTest, StartsOverWithAnExtensionThatHasDecidedMore) {
  play({answer(5, 100.0, 5), answer(8, 101.0, 8, 101), answer(8, 102.0, 1, 101),
        answer(8, 103.0, 0, 101)});
  EXPECT_EQ(after_, (std::vector<json_int_t>{0, 5, 0, 1}));
  const std::string whole = state_.whole().json;
  // The first one of the other extension.
  EXPECT_NE(whole.find("\"#6\""), std::string::npos);
}

TEST_F(ControlPollerTest, SaysWhyThereIsNoAnswer) {
  std::promise<void> asked;
  int questions = 0;
  const ControlPoller poller(
      state_,
      [&](const JSONHandle&) -> ControlClient::Answer {
        if (++questions == 3) {
          asked.set_value();
        }
        return ControlClient::Failure{"not_running", "the extension is not running"};
      },
      1ms);
  ASSERT_EQ(asked.get_future().wait_for(30s), std::future_status::ready);
  EXPECT_NE(state_.whole().json.find("the extension is not running"), std::string::npos);
}

}  // namespace
}  // namespace ostravel::companion
