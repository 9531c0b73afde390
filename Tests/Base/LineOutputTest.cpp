#include "Base/LineOutput.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <string>
#include <thread>

namespace ostravel {
namespace {

using namespace std::chrono_literals;

class LineOutputTest : public testing::Test {
 protected:
  ~LineOutputTest() override {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }

  void fill() const {
    while (output_.writePiece(std::string(PIPE_BUF, 'x'), 0ms).size > 0) {
    }
  }

  std::string read(std::size_t most = 1'000'000) const {
    std::string bytes(most, '\0');
    const auto size = ::read(ends_[0], bytes.data(), bytes.size());
    bytes.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return bytes;
  }

  static std::array<int, 2> makePipe() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    return ends;
  }

  std::array<int, 2> ends_ = makePipe();
  const LineOutput output_{ends_[1]};
};

TEST_F(LineOutputTest, WritesWhatFits) {
  EXPECT_EQ(output_.writePiece("one\ntwo\n", 0ms).size, 8U);
  EXPECT_EQ(read(), "one\ntwo\n");
}

TEST_F(LineOutputTest, EndsAPieceAfterALine) {
  const std::string line = std::string(PIPE_BUF / 2, 'x') + "\n";
  EXPECT_EQ(output_.writePiece(line + line, 0ms).size, line.size());
}

TEST_F(LineOutputTest, WritesALongLineInParts) {
  const std::string line = std::string(2 * PIPE_BUF, 'x') + "\n";
  EXPECT_EQ(output_.writePiece(line, 0ms).size, static_cast<std::size_t>(PIPE_BUF));
  EXPECT_EQ(output_.writeAll(line.substr(PIPE_BUF), 0ms), std::error_code());
  EXPECT_EQ(read(), line);
}

TEST_F(LineOutputTest, GivesUpWhenThereIsNoRoom) {
  fill();
  const auto piece = output_.writePiece("line\n", 1ms);
  EXPECT_EQ(piece.size, 0U);
  EXPECT_EQ(piece.error, 0);
  EXPECT_EQ(output_.writeAll("line\n", 1ms), std::errc::timed_out);
}

TEST_F(LineOutputTest, WaitsForRoom) {
  fill();
  std::thread reader([this] { read(); });
  EXPECT_EQ(output_.writeAll("line\n", 30s), std::error_code());
  reader.join();
}

TEST_F(LineOutputTest, LeavesTheDescriptorBlocking) {
  fill();
  EXPECT_EQ(::fcntl(ends_[1], F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(LineOutputTest, ReportsTheErrorOfTheSystem) {
  const auto old = std::signal(SIGPIPE, SIG_IGN);
  ::close(ends_[0]);
  const auto piece = output_.writePiece("line\n", 0ms);
  EXPECT_EQ(piece.size, 5U);
  EXPECT_EQ(piece.error, EPIPE);
  EXPECT_EQ(output_.writeAll("line\n", 0ms), std::errc::broken_pipe);
  ends_[0] = -1;
  std::signal(SIGPIPE, old);
}

}  // namespace
}  // namespace ostravel
