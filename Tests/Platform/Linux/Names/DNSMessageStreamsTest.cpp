#include "Platform/Linux/Names/DNSMessageStreams.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Tests/Platform/Linux/Names/Support/MessageBuilder.h"

namespace ostravel::linuxplatform {
namespace {

using testing::addressOf;

constexpr std::uint8_t kFin = 0x01;
constexpr std::uint8_t kSyn = 0x02;
constexpr std::uint8_t kAck = 0x10;

// Near the end of the numbers, so that they begin again.
constexpr std::uint32_t kFirst = 0xFFFFFFF0;

std::string framed(const std::string& message) {
  return std::string{static_cast<char>(message.size() >> 8U),
                     static_cast<char>(message.size() & 0xFFU)} +
         message;
}

class DNSMessageStreamsTest : public ::testing::Test {
 protected:
  static FlowTuple tupleFrom(std::uint16_t port) {
    return {TransportProtocol::tcp, addressOf("198.51.100.1", port), addressOf("192.0.2.53", 53)};
  }

  void receive(std::uint8_t flags, std::uint32_t sequence, const std::string& payload,
               std::uint16_t port = 40'000, std::size_t missing = 0) {
    TransportPacket packet;
    packet.tuple = tupleFrom(port);
    packet.flags = flags;
    packet.sequence = sequence;
    packet.payload = std::as_bytes(std::span(payload));
    packet.payloadSize = payload.size() + missing;
    streams_.receive(packet, [this](std::span<const std::byte> message) {
      messages_.emplace_back(reinterpret_cast<const char*>(message.data()), message.size());
    });
  }
  void begin(std::uint16_t port = 40'000) { receive(kSyn, kFirst, "", port); }

  using Messages = std::vector<std::string>;
  DNSMessageStreams streams_;
  Messages messages_;
};

TEST_F(DNSMessageStreamsTest, PutsAMessageTogetherAndSeparatesSeveral) {
  const std::string bytes = framed("a message") + framed("another");
  begin();
  for (std::size_t index = 0; index < bytes.size(); ++index) {
    receive(kAck, kFirst + 1 + static_cast<std::uint32_t>(index), bytes.substr(index, 1));
  }
  EXPECT_EQ(messages_, (Messages{"a message", "another"}));
  messages_.clear();
  receive(kAck, kFirst + 1 + static_cast<std::uint32_t>(bytes.size()), bytes);
  EXPECT_EQ(messages_, (Messages{"a message", "another"}));
}

TEST_F(DNSMessageStreamsTest, SkipsWhatIsRepeated) {
  const std::string bytes = framed("a message");
  begin();
  receive(kAck, kFirst + 1, bytes.substr(0, 5));
  receive(kAck, kFirst + 1, bytes.substr(0, 3));
  receive(kAck, kFirst + 2, bytes.substr(1));
  receive(kAck, kFirst + 2, bytes.substr(1));
  EXPECT_EQ(messages_, Messages{"a message"});
}

TEST_F(DNSMessageStreamsTest, ReadsDataOfTheFirstPacket) {
  receive(kSyn, kFirst, framed("a message"));
  EXPECT_EQ(messages_, Messages{"a message"});
}

TEST_F(DNSMessageStreamsTest, AGapEndsTheStream) {
  begin();
  receive(kAck, kFirst + 3, "x");
  receive(kAck, kFirst + 1, framed("a message"));
  EXPECT_EQ(messages_, Messages{});
  EXPECT_EQ(streams_.size(), 0U);
}

TEST_F(DNSMessageStreamsTest, APartlyCopiedPacketEndsTheStream) {
  begin();
  receive(kAck, kFirst + 1, framed("a message"), 40'000, 1);
  EXPECT_EQ(messages_, Messages{});
  EXPECT_EQ(streams_.size(), 0U);
}

TEST_F(DNSMessageStreamsTest, AStreamWithoutItsBeginningIsIgnored) {
  receive(kAck, kFirst + 1, framed("a message"));
  EXPECT_EQ(messages_, Messages{});
}

TEST_F(DNSMessageStreamsTest, AMessageThatIsTooLongEndsTheStream) {
  begin();
  receive(kAck, kFirst + 1, std::string("\x10\x01", 2));
  EXPECT_EQ(streams_.size(), 0U);
  begin();
  receive(kAck, kFirst + 1, std::string("\x10\x00", 2));
  EXPECT_EQ(streams_.size(), 1U);
}

TEST_F(DNSMessageStreamsTest, TheEndOfAConnectionEndsTheStream) {
  begin();
  receive(kAck | kFin, kFirst + 1, framed("a message"));
  EXPECT_EQ(messages_, Messages{"a message"});
  EXPECT_EQ(streams_.size(), 0U);
}

TEST_F(DNSMessageStreamsTest, TheLeastRecentlyUsedStreamIsForgotten) {
  begin(1);
  for (std::uint16_t port = 2; port <= DNSMessageStreams::kCapacity; ++port) {
    begin(port);
  }
  receive(kAck, kFirst + 1, "\0", 1);
  begin(1000);
  EXPECT_EQ(streams_.size(), DNSMessageStreams::kCapacity);
  receive(kAck, kFirst + 1, framed("first"), 1);
  receive(kAck, kFirst + 1, framed("second"), 2);
  EXPECT_EQ(messages_, Messages{"first"});
}

}  // namespace
}  // namespace ostravel::linuxplatform
