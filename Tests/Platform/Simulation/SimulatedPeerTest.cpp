#include "Platform/Simulation/SimulatedPeer.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Platform/Simulation/Simulation.h"
#include "Tests/Support/Outcome.h"

namespace ostravel::simulation {
namespace {

using testing::Outcome;

const platform::Error kError{"Domain", 7, "reason"};

// The far end of a connection, which has every operation that a flow has.
class SimulatedPeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    connection_ =
        simulation_.createTCPConnection({"127.0.0.1", "8080"}, platform::TLSPolicy::disabled);
    peer_ = simulation_.peer(0);
    simulation_.connection(0)->accept();
    simulation_.run();
  }

  void read(std::size_t minimum = 1, std::size_t maximum = 4096) {
    connection_->read(minimum, maximum, read_.readCompletion());
  }
  void write(std::string_view text) {
    connection_->write(platform::Data::copyOf(text), written_.completion());
  }

  Simulation simulation_;
  std::shared_ptr<platform::TCPConnection> connection_;
  std::shared_ptr<SimulatedPeer> peer_;
  Outcome read_;
  Outcome written_;
};

TEST_F(SimulatedPeerTest, AReadWaitsForItsMinimum) {
  read(4);
  peer_->send("abc");
  simulation_.run();
  EXPECT_EQ(read_.count(), 0);
  peer_->send("de");
  simulation_.run();
  EXPECT_EQ(read_.lastText(), "abcde");
}

TEST_F(SimulatedPeerTest, AReadDeliversAtMostItsMaximum) {
  peer_->send("abcde");
  read(1, 2);
  simulation_.run();
  EXPECT_EQ(read_.lastText(), "ab");
  EXPECT_EQ(peer_->unreadBytes(), 3U);
  read(1, 2);
  simulation_.run();
  EXPECT_EQ(read_.lastText(), "cd");
  read(1, 2);
  simulation_.run();
  EXPECT_EQ(read_.lastText(), "e");
  EXPECT_EQ(peer_->unreadBytes(), 0U);
}

TEST_F(SimulatedPeerTest, TheEndComesAfterWhatWasSent) {
  peer_->send("last");
  peer_->endSending();
  read();
  simulation_.run();
  EXPECT_EQ(read_.lastText(), "last");
  read();
  simulation_.run();
  EXPECT_EQ(read_.count(), 2);
  EXPECT_TRUE(read_.isEnd());
  EXPECT_FALSE(read_.isEmptyData());
}

TEST_F(SimulatedPeerTest, TheEndDeliversLessThanAMinimum) {
  read(10);
  peer_->send("abc");
  peer_->endSending();
  simulation_.run();
  EXPECT_EQ(read_.lastText(), "abc");
}

TEST_F(SimulatedPeerTest, TheEndMayBeEmptyData) {
  peer_->endSending(EndOfStream::emptyData);
  read();
  simulation_.run();
  EXPECT_TRUE(read_.isEnd());
  EXPECT_TRUE(read_.isEmptyData());
}

TEST_F(SimulatedPeerTest, TheEndIsReportedRepeatedly) {
  peer_->endSending();
  for (int i = 1; i <= 3; ++i) {
    read();
    simulation_.run();
    EXPECT_EQ(read_.count(), i);
    EXPECT_TRUE(read_.isEnd());
  }
}

TEST_F(SimulatedPeerTest, SendingAfterTheEndIsAnError) {
  peer_->endSending();
  EXPECT_THROW(peer_->send("x"), std::logic_error);
}

TEST_F(SimulatedPeerTest, ASecondOutstandingReadIsAnError) {
  read();
  EXPECT_THROW(read(), std::logic_error);
}

TEST_F(SimulatedPeerTest, ASecondOutstandingWriteIsAnError) {
  write("a");
  EXPECT_THROW(write("b"), std::logic_error);
}

TEST_F(SimulatedPeerTest, AReadThatCanDeliverNothingIsAnError) {
  EXPECT_THROW(read(0, 0), std::logic_error);
  EXPECT_THROW(read(2, 1), std::logic_error);
}

TEST_F(SimulatedPeerTest, AReadAndAWriteMayBeOutstandingTogether) {
  read();
  write("a");
  peer_->send("b");
  simulation_.run();
  EXPECT_EQ(read_.lastText(), "b");
  EXPECT_EQ(written_.count(), 1);
}

TEST_F(SimulatedPeerTest, ACompletionMayStartTheNextOperation) {
  std::string text;
  std::function<void()> readOn = [&] {
    connection_->read(1, 1, [&](const auto& data, const auto&) {
      if (data) {
        text += static_cast<char>(data->bytes()[0]);
        readOn();
      }
    });
  };
  readOn();
  peer_->send("abc");
  peer_->endSending();
  simulation_.run();
  EXPECT_EQ(text, "abc");
}

TEST_F(SimulatedPeerTest, WriteCompletionsAreHeldBackAndReleasedOneByOne) {
  peer_->holdWrites();
  write("a");
  simulation_.run();
  EXPECT_EQ(written_.count(), 0);
  EXPECT_TRUE(peer_->writeOutstanding());
  EXPECT_EQ(peer_->received(), "");
  peer_->releaseWrite();
  EXPECT_EQ(written_.count(), 0);
  simulation_.run();
  EXPECT_EQ(written_.count(), 1);
  EXPECT_EQ(peer_->received(), "a");
  write("b");
  simulation_.run();
  EXPECT_EQ(written_.count(), 1);
}

TEST_F(SimulatedPeerTest, WritesCompleteWhenTheyAreNoLongerHeld) {
  peer_->holdWrites();
  write("a");
  simulation_.run();
  peer_->releaseWrites();
  simulation_.run();
  EXPECT_EQ(written_.count(), 1);
  write("b");
  simulation_.run();
  EXPECT_EQ(written_.count(), 2);
}

TEST_F(SimulatedPeerTest, ReleasingNothingIsAnError) {
  EXPECT_THROW(peer_->releaseWrite(), std::logic_error);
  peer_->holdWrites();
  write("a");
  peer_->releaseWrite();
  EXPECT_THROW(peer_->releaseWrite(), std::logic_error);
}

TEST_F(SimulatedPeerTest, ReadsFailOnRequest) {
  peer_->send("lost");
  read();
  peer_->failReads(kError);
  simulation_.run();
  EXPECT_EQ(read_.count(), 1);
  EXPECT_EQ(read_.error(), kError);
  EXPECT_EQ(read_.lastText(), "");
  read();
  simulation_.run();
  EXPECT_EQ(read_.count(), 2);
  EXPECT_EQ(read_.error(), kError);
  write("still works");
  simulation_.run();
  EXPECT_FALSE(written_.error());
}

TEST_F(SimulatedPeerTest, WritesFailOnRequestEvenAHeldOne) {
  peer_->holdWrites();
  write("lost");
  simulation_.run();
  peer_->failWrites(kError);
  simulation_.run();
  EXPECT_EQ(written_.count(), 1);
  EXPECT_EQ(written_.error(), kError);
  EXPECT_EQ(peer_->received(), "");
  EXPECT_EQ(peer_->writes(), (std::vector<std::string>{"lost"}));
  peer_->send("still works");
  read();
  simulation_.run();
  EXPECT_EQ(read_.lastText(), "still works");
}

TEST_F(SimulatedPeerTest, AResetFailsBothDirections) {
  read();
  peer_->holdWrites();
  write("x");
  peer_->reset();
  simulation_.run();
  EXPECT_EQ(read_.error()->code, ECONNRESET);
  EXPECT_EQ(written_.error()->code, ECONNRESET);
}

TEST_F(SimulatedPeerTest, LargeTransfersArriveWhole) {
  std::string sent;
  for (int i = 0; i < 100000; ++i) {
    sent += std::to_string(i);
  }
  std::string text;
  for (std::size_t at = 0; at < sent.size(); at += 1000) {
    peer_->send(std::string_view(sent).substr(at, 1000));
    read(1, 700);
    simulation_.run();
    text += read_.lastText();
  }
  while (peer_->unreadBytes() > 0) {
    read(1, 700);
    simulation_.run();
    text += read_.lastText();
  }
  EXPECT_EQ(text, sent);
}

TEST(SeededSimulatedPeerTest, BothFormsOfTheEndOccur) {
  int empty = 0;
  for (std::uint64_t seed = 0; seed < 100; ++seed) {
    Simulation simulation({.order = RunOrder::seeded, .seed = seed, .faults = {}});
    const auto flow = simulation.makeTCPFlow("app", std::nullopt);
    flow->open(std::nullopt, [](const auto&) {});
    simulation.run();
    Outcome read;
    flow->application()->endSending();
    flow->read(read.readCompletion());
    simulation.run();
    EXPECT_TRUE(read.isEnd());
    empty += read.isEmptyData() ? 1 : 0;
  }
  EXPECT_GT(empty, 20);
  EXPECT_LT(empty, 80);
}

}  // namespace
}  // namespace ostravel::simulation
