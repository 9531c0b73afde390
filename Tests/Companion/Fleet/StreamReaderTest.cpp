#include "Companion/Fleet/StreamReader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Companion/Fleet/FleetConnection.h"
#include "Companion/Fleet/FleetMessage.h"
#include "Tests/Companion/Fleet/NATSServer.h"

namespace ostravel::companion::test {
namespace {

using namespace std::chrono_literals;

class StreamReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.start();
    natsConnection* connection = nullptr;
    ASSERT_EQ(natsConnection_ConnectTo(&connection, server_.url().c_str()), NATS_OK);
    connection_.reset(connection);
    ASSERT_EQ(ensureFleetStream(connection), "");
    jsCtx* jetStream = nullptr;
    ASSERT_EQ(natsConnection_JetStream(&jetStream, connection, nullptr), NATS_OK);
    jetStream_.reset(jetStream);
    ASSERT_EQ(answers_.subscribe(connection), NATS_OK);
  }

  std::unique_ptr<StreamReader> readerFrom(std::uint64_t position) {
    std::string problem;
    auto reader =
        StreamReader::make(connection_.get(), jetStream_.get(), answers_, position, problem);
    EXPECT_EQ(problem, "");
    return reader;
  }

  // Stores messages that count up from a number.
  void store(int first, int count) const {
    for (int number = first; number < first + count; ++number) {
      send(std::to_string(number), nullptr);
    }
    ASSERT_EQ(natsConnection_Flush(connection_.get()), NATS_OK);
    waitForStored(static_cast<std::uint64_t>(first + count) - 1);
  }

  void send(const std::string& text, const char* statusHeader) const {
    natsMsg* message = nullptr;
    ASSERT_EQ(natsMsg_Create(&message, "ostravel.events.host-1.boot-1", nullptr, text.data(),
                             static_cast<int>(text.size())),
              NATS_OK);
    const NATSMessage owned(message);
    if (statusHeader != nullptr) {
      natsMsgHeader_Set(message, "Status", statusHeader);
    }
    ASSERT_EQ(natsConnection_PublishMsg(connection_.get(), message), NATS_OK);
  }

  // Up to the test's time limit.
  void waitForStored(std::uint64_t count) const {
    while (server_.storedMessages() < count) {
    }
  }

  // Until so many messages are there, or the reader is useless.
  std::vector<std::string> readSome(StreamReader& reader, std::size_t count) {
    std::vector<std::string> texts;
    isUsable_ = true;
    while (isUsable_ && texts.size() < count) {
      isUsable_ = reader.read(500ms, [&texts](natsMsg* message) {
        texts.emplace_back(natsMsg_GetData(message),
                           static_cast<std::size_t>(natsMsg_GetDataLength(message)));
      });
    }
    return texts;
  }

  NATSServer server_;
  StreamAnswers answers_;
  NATSConnection connection_;
  JetStream jetStream_;
  bool isUsable_ = true;
};

TEST_F(StreamReaderTest, ReadsSeveralBatchesInOrder) {
  store(1, 1300);
  const auto reader = readerFrom(1);
  const std::vector<std::string> texts = readSome(*reader, 1300);
  ASSERT_EQ(texts.size(), 1300U);
  for (int number = 1; number <= 1300; ++number) {
    EXPECT_EQ(texts[static_cast<std::size_t>(number) - 1], std::to_string(number));
  }
}

TEST_F(StreamReaderTest, BeginsAtItsPosition) {
  store(1, 10);
  const auto reader = readerFrom(9);
  EXPECT_EQ(readSome(*reader, 2), (std::vector<std::string>{"9", "10"}));
}

TEST_F(StreamReaderTest, GoesOnAfterATimeWithoutMessages) {
  const auto reader = readerFrom(1);
  // Longer than one request.
  const auto end = std::chrono::steady_clock::now() + 2500ms;
  while (std::chrono::steady_clock::now() < end) {
    ASSERT_TRUE(reader->read(100ms, [](natsMsg* /*message*/) { FAIL() << "there is none"; }));
  }
  store(1, 1);
  EXPECT_EQ(readSome(*reader, 1), (std::vector<std::string>{"1"}));
}

TEST_F(StreamReaderTest, IsUselessWithoutItsConsumer) {
  const auto reader = readerFrom(1);
  server_.kill();
  server_.start();
  // The consumer was in the server's memory.
  EXPECT_EQ(readSome(*reader, 1), std::vector<std::string>());
  EXPECT_FALSE(isUsable_);
}

TEST_F(StreamReaderTest, GivesUpAServerThatHangs) {
  store(1, 600);
  const auto reader = readerFrom(1);
  server_.suspend();
  EXPECT_EQ(readSome(*reader, 1), std::vector<std::string>());
  EXPECT_FALSE(isUsable_);
  server_.resume();
  // Its late answers do not reach another reader.
  const auto next = readerFrom(1);
  const std::vector<std::string> texts = readSome(*next, 600);
  ASSERT_EQ(texts.size(), 600U);
  EXPECT_EQ(texts.front(), "1");
  EXPECT_EQ(texts.back(), "600");
}

TEST_F(StreamReaderTest, DoesNotTakeAMachinesHeaderForTheServers) {
  send("first", "503");
  store(2, 1);
  const auto reader = readerFrom(1);
  EXPECT_EQ(readSome(*reader, 2), (std::vector<std::string>{"first", "2"}));
}

TEST_F(StreamReaderTest, SaysWhyThereIsNoConsumer) {
  jsErrCode code{};
  ASSERT_EQ(js_DeleteStream(jetStream_.get(), kFleetStream, nullptr, &code), NATS_OK);
  std::string problem;
  EXPECT_EQ(StreamReader::make(connection_.get(), jetStream_.get(), answers_, 1, problem), nullptr);
  EXPECT_NE(problem, "");
}

}  // namespace
}  // namespace ostravel::companion::test
