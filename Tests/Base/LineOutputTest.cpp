#include "Base/LineOutput.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <string>
#include <thread>

#include "Tests/Support/TestPipe.h"

namespace ostravel {
namespace {

using namespace std::chrono_literals;

class LineOutputTest : public ::testing::Test {
 protected:
  void fill() const {
    while (output_.writePiece(std::string(PIPE_BUF, 'x'), 0ms).size > 0) {
    }
  }

  std::string read(std::size_t most = 1'000'000) const {
    std::string bytes(most, '\0');
    const auto size = ::read(pipe_.output(), bytes.data(), bytes.size());
    bytes.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return bytes;
  }

  testing::TestPipe pipe_;
  const LineOutput output_{pipe_.input()};
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
  EXPECT_EQ(::fcntl(pipe_.input(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(LineOutputTest, ReportsTheErrorOfTheSystem) {
  const auto old = std::signal(SIGPIPE, SIG_IGN);
  pipe_.closeOutput();
  const auto piece = output_.writePiece("line\n", 0ms);
  EXPECT_EQ(piece.size, 5U);
  EXPECT_EQ(piece.error, EPIPE);
  EXPECT_EQ(output_.writeAll("line\n", 0ms), std::errc::broken_pipe);
  std::signal(SIGPIPE, old);
}

}  // namespace
}  // namespace ostravel
