#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "Tests/Companion/Events/EventSamples.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::companion::test {

using testing::ChildProcess;
using testing::TemporaryFolder;
using testing::TestSocket;

namespace {

const std::string kEventLine =
    "05:43:35.123 info  D7A6D6B1 connected 1.25 ms   /usr/bin/curl              -";

class MonitorProgramTest : public ::testing::Test {
 protected:
  std::vector<std::string> command(const std::vector<std::string>& arguments = {}) const {
    std::vector<std::string> result{OSTRAVEL_MONITOR_PROGRAM, "--socket", path_};
    result.insert(result.end(), arguments.begin(), arguments.end());
    return result;
  }

  ChildProcess::Options options() const { return {.environment = {"TZ=UTC", "NO_COLOR"}}; }

  void waitUntilReady(ChildProcess& monitor) const {
    ASSERT_EQ(monitor.readErrorLine(), "ostravel-monitor listening on " + path_);
  }

  void send(const std::string& bytes) const { TestSocket::connectUnix(path_).send(bytes); }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path("events");
};

TEST_F(MonitorProgramTest, PrintsOneLineForEachEvent) {
  ChildProcess monitor(command(), options());
  waitUntilReady(monitor);
  send(frame(kEvent));
  EXPECT_EQ(monitor.readOutputLine(), kEventLine);
  send(frame(kEvent));
  EXPECT_EQ(monitor.readOutputLine(), kEventLine);
}

TEST_F(MonitorProgramTest, PrintsTheEventItselfAsJSON) {
  ChildProcess monitor(command({"--json"}), options());
  waitUntilReady(monitor);
  send(frame(kEvent));
  EXPECT_EQ(monitor.readOutputLine(), replaced(kEvent, R"(\/usr\/bin\/curl)", "/usr/bin/curl"));
}

TEST_F(MonitorProgramTest, ReportsMalformedFramesAndContinues) {
  for (const std::vector<std::string>& mode : {std::vector<std::string>{}, {"--json"}}) {
    ChildProcess monitor(command(mode), options());
    waitUntilReady(monitor);
    for (const auto& [bytes, problem] : std::vector<std::pair<std::string, std::string>>{
             {std::string(4, '\0'), "the length is 0"},
             {"\x7f\xff\xff\xff", "the length 2147483647 is more than 1048576"},
             {"", "the connection ended after 0 of 4 bytes of the length"},
             {frame(kEvent).substr(0, 9), "the connection ended after 5 of " +
                                              std::to_string(kEvent.size()) + " bytes of the body"},
             {frame("{}") + "x", "bytes follow the frame of 2 bytes"},
             {frame("[]"), "not a JSON object"},
             {frame("{}"), "\"message_id\" is missing"},
             {frame(replaced(kTunnelClosed, "\"detail\":\"Connection reset by peer\"",
                             R"("\u001b[2J":1)")),
              R"("\x1b[2J" of "context" is not a string)"}}) {
      send(bytes);
      EXPECT_EQ(monitor.readErrorLine(), "ostravel-monitor: malformed frame: " + problem);
    }
    send(frame(kEvent));
    EXPECT_NE(monitor.readOutputLine(), "");
    monitor.sendSignal(SIGTERM);
    EXPECT_EQ(monitor.waitForExit(), 0);
    EXPECT_EQ(monitor.readOutput(), "");
  }
}

TEST_F(MonitorProgramTest, KeepsControlCharactersFromTheTerminal) {
  ChildProcess monitor(command(), options());
  waitUntilReady(monitor);
  send(frame(replaced(kProviderStarted, "Transparent proxy provider started",
                      R"(\u001b]0;x\u0007\r\n\u009b)")));
  const std::string line = monitor.readOutputLine();
  EXPECT_NE(line.find(R"( \x1b]0;x\x07\r\n\u009b)"), std::string::npos) << line;
}

TEST_F(MonitorProgramTest, ListensForItsOwnerAlone) {
  ChildProcess monitor(command(), options());
  waitUntilReady(monitor);
  struct stat status {};
  ASSERT_EQ(::lstat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(MonitorProgramTest, LetsAGroupConnect) {
  ChildProcess monitor(command({"--group", "daemon"}), options());
  waitUntilReady(monitor);
  struct stat status {};
  ASSERT_EQ(::lstat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0660U);
  EXPECT_EQ(status.st_gid, ::getgrnam("daemon")->gr_gid);
}

TEST_F(MonitorProgramTest, ReportsAGroupThatDoesNotExist) {
  ChildProcess monitor(command({"--group", "no-such-group"}), options());
  waitUntilReady(monitor);
  EXPECT_EQ(monitor.readErrorLine(),
            "ostravel-monitor: there is no group no-such-group, so its members cannot connect");
  struct stat status {};
  ASSERT_EQ(::lstat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(MonitorProgramTest, RemovesItsSocketWhenSignalledToEnd) {
  for (const int number : {SIGINT, SIGTERM}) {
    ChildProcess monitor(command(), options());
    waitUntilReady(monitor);
    monitor.sendSignal(number);
    EXPECT_EQ(monitor.waitForExit(), 0);
    EXPECT_FALSE(std::filesystem::exists(path_));
  }
}

TEST_F(MonitorProgramTest, EndsOnASignalThatComesJustBeforeItWaits) {
  ChildProcess::Options signalled = options();
  signalled.environment.push_back("LD_PRELOAD=" OSTRAVEL_SIGNAL_BEFORE_WAIT);
  ChildProcess monitor(command(), signalled);
  EXPECT_EQ(monitor.waitForExit(), 0);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(MonitorProgramTest, StartsAgainAfterACrash) {
  {
    ChildProcess monitor(command(), options());
    waitUntilReady(monitor);
    monitor.sendSignal(SIGKILL);
    monitor.waitForExit();
  }
  ASSERT_TRUE(std::filesystem::is_socket(path_));
  ChildProcess monitor(command(), options());
  waitUntilReady(monitor);
}

TEST_F(MonitorProgramTest, RefusesToTakeTheSocketOfARunningMonitor) {
  ChildProcess first(command(), options());
  waitUntilReady(first);
  ChildProcess second(command(), options());
  EXPECT_EQ(second.waitForExit(), 2);
  EXPECT_EQ(second.readError(),
            "ostravel-monitor: cannot listen on " + path_ + ": another program listens there\n");
  send(frame(kEvent));
  EXPECT_EQ(first.readOutputLine(), kEventLine);
  // The other one has not connected.
  first.sendSignal(SIGTERM);
  EXPECT_EQ(first.readError(), "");
}

TEST_F(MonitorProgramTest, RefusesToReplaceAFile) {
  std::ofstream(path_) << "precious";
  ChildProcess monitor(command(), options());
  EXPECT_EQ(monitor.waitForExit(), 2);
  EXPECT_EQ(monitor.readError(), "ostravel-monitor: cannot listen on " + path_ +
                                     ": there is something else that is no socket\n");
  EXPECT_EQ(std::filesystem::file_size(path_), 8U);
}

TEST_F(MonitorProgramTest, RefusesAPathThatIsTooLong) {
  ChildProcess monitor({OSTRAVEL_MONITOR_PROGRAM, "--socket", "/" + std::string(103, 'x')});
  EXPECT_EQ(monitor.waitForExit(), 2);
  EXPECT_TRUE(monitor.readError().ends_with("the path is 104 bytes long, more than 103\n"));
}

TEST_F(MonitorProgramTest, EndsCleanlyWithoutAReader) {
  ChildProcess monitor(command(), options());
  waitUntilReady(monitor);
  monitor.closeOutput();
  send(frame(kEvent));
  EXPECT_EQ(monitor.waitForExit(), 0);
  EXPECT_EQ(monitor.readError(), "");
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(MonitorProgramTest, EndsOnASignalWhileItsReaderIsSlow) {
  ChildProcess monitor(command({"--json"}), options());
  waitUntilReady(monitor);
  // Far more than a pipe holds: once the first bytes are there, the rest waits for a reader.
  const std::string large =
      frame(replaced(kEvent, "CONNECT handshake completed", std::string(1'000'000, 'x')));
  send(large);
  monitor.waitForOutput();
  monitor.sendSignal(SIGTERM);
  EXPECT_EQ(monitor.waitForExit(), 0);
}

TEST_F(MonitorProgramTest, ReceivesEventsWhileItsReaderHasStalled) {
  ChildProcess monitor(command({"--json"}), options());
  waitUntilReady(monitor);
  // More than it holds, and it still accepts each of them at once.
  constexpr int kEvents = 20;
  const std::string large =
      frame(replaced(kEvent, "CONNECT handshake completed", std::string(1'000'000, 'x')));
  for (int index = 0; index < kEvents; ++index) {
    const TestSocket sender = TestSocket::connectUnix(path_);
    sender.send(large);
    sender.endSending();
    sender.receiveToEnd();
  }

  // Every line is whole.
  const auto expectEvent = [&monitor] {
    const std::string line = monitor.readOutputLine();
    EXPECT_TRUE(line.starts_with('{') && line.ends_with('}') && line.size() > 1'000'000);
  };
  // One buffer, at least one event of the other, and so the report of what lies between them.
  int events = 0;
  for (; events < 5; ++events) {
    expectEvent();
  }
  // What is missing is counted apart from the events.
  constexpr std::string_view kReport = "ostravel-monitor: events dropped: ";
  const std::string line = monitor.readErrorLine();
  ASSERT_TRUE(line.starts_with(kReport)) << line;
  const int dropped = std::stoi(line.substr(kReport.size()));
  for (; events < kEvents - dropped; ++events) {
    expectEvent();
  }
  monitor.sendSignal(SIGTERM);
  EXPECT_EQ(monitor.waitForExit(), 0);
  EXPECT_EQ(monitor.readOutput(), "");
  EXPECT_EQ(monitor.readError(), "");
}

TEST_F(MonitorProgramTest, PrintsItsLastEventsBeforeItEnds) {
  ChildProcess monitor(command(), options());
  waitUntilReady(monitor);
  for (int index = 0; index < 10; ++index) {
    const TestSocket sender = TestSocket::connectUnix(path_);
    sender.send(frame(kEvent));
    sender.endSending();
    sender.receiveToEnd();
  }
  monitor.sendSignal(SIGTERM);
  EXPECT_EQ(monitor.waitForExit(), 0);
  std::string expected;
  for (int index = 0; index < 10; ++index) {
    expected += kEventLine + "\n";
  }
  EXPECT_EQ(monitor.readOutput(), expected);
}

TEST_F(MonitorProgramTest, ReportsOutputThatCannotBeWritten) {
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  ChildProcess::Options fullOutput = options();
  fullOutput.output = full;
  ChildProcess monitor(command(), fullOutput);
  waitUntilReady(monitor);
  send(frame(kEvent));
  EXPECT_EQ(monitor.waitForExit(), 1);
  EXPECT_EQ(monitor.readError(), "ostravel-monitor: cannot write: No space left on device\n");
  ::close(full);
}

TEST_F(MonitorProgramTest, ShowsOnlyRequestedEvents) {
  ChildProcess monitor(command({"--failed", "--application", "CURL", "--time", "utc"}), options());
  waitUntilReady(monitor);
  send(frame(kEvent));
  send(frame(kTunnelClosed));
  EXPECT_EQ(monitor.readOutputLine(),
            "2025-11-16T05:43:36.500Z error D7A6D6B1 reset               "
            "/usr/bin/curl              -                       Connection reset by peer");
}

TEST_F(MonitorProgramTest, SumsUpAtItsEnd) {
  ChildProcess monitor(command({"--summary", "--json"}), options());
  waitUntilReady(monitor);
  send(frame(kEvent));
  monitor.readOutputLine();
  monitor.sendSignal(SIGTERM);
  EXPECT_EQ(monitor.waitForExit(), 0);
  EXPECT_EQ(monitor.readError(),
            "ostravel-monitor: 1 flow, none failed, slowest 1.25 ms: /usr/bin/curl to -\n");
  // Apart from the events, which a program may read.
  EXPECT_EQ(monitor.readOutput(), "");
}

TEST_F(MonitorProgramTest, ServesALivePage) {
  const std::string token = folder_.path("token");
  std::ofstream(token) << "a-token-for-the-tests\n";
  ChildProcess monitor(command({"--web", "127.0.0.1:0", "--web-token", token}), options());
  waitUntilReady(monitor);
  const std::string line = monitor.readErrorLine();
  const std::string begin = "ostravel-monitor: the live page is http://127.0.0.1:";
  ASSERT_TRUE(line.starts_with(begin)) << line;
  ASSERT_TRUE(line.ends_with("/?token=a-token-for-the-tests")) << line;
  send(frame(kEvent));
  monitor.readOutputLine();
  const TestSocket page =
      TestSocket::connectTcp(static_cast<std::uint16_t>(std::stoi(line.substr(begin.size()))));
  page.send(
      "GET /metrics?token=a-token-for-the-tests HTTP/1.1\r\nHost: localhost\r\n"
      "Connection: close\r\n\r\n");
  EXPECT_NE(page.receiveToEnd().find("\nostravel_flows_total 1\n"), std::string::npos);
  monitor.sendSignal(SIGTERM);
  EXPECT_EQ(monitor.waitForExit(), 0);
}

TEST_F(MonitorProgramTest, ServesItsPageOnAnInheritedSocket) {
  // Inherited by the shell, which closes its own copy.
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 8), 0);
  std::vector<std::string> manager{
      "/bin/bash", "-c",
      "LISTEN_FDS=1 LISTEN_PID=$$ exec \"$@\" 3<&" + std::to_string(listener) + "-", "bash"};
  for (const std::string& argument : command()) {
    manager.push_back(argument);
  }
  ChildProcess::Options service = options();
  service.environment.push_back("STATE_DIRECTORY=" + folder_.path("."));
  std::string url;
  for (int start = 0; start < 2; ++start) {
    ChildProcess monitor(manager, service);
    waitUntilReady(monitor);
    const std::string line = monitor.readErrorLine();
    const std::string begin = "ostravel-monitor: the live page is http://127.0.0.1:";
    ASSERT_TRUE(line.starts_with(begin)) << line;
    // The address stays, with its token.
    EXPECT_TRUE(url.empty() || url == line) << line;
    url = line;
    const TestSocket page =
        TestSocket::connectTcp(static_cast<std::uint16_t>(std::stoi(line.substr(begin.size()))));
    page.send("GET /metrics" + line.substr(line.find("?token=")) +
              " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
    EXPECT_TRUE(page.receiveToEnd().starts_with("HTTP/1.1 200 "));
    monitor.sendSignal(SIGTERM);
    EXPECT_EQ(monitor.waitForExit(), 0);
  }
  ::close(listener);
  struct stat status {};
  ASSERT_EQ(::stat(folder_.path("web-token").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(MonitorProgramTest, RefusesAPageThatItCannotServe) {
  const std::string token = folder_.path("token");
  std::ofstream(token) << "short\n";
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--web", "localhost:0"},
        {"--web", "127.0.0.1"},
        {"--web", "127.0.0.1:0", "--web-token", token},
        {"--web", "192.0.2.1:8090"}}) {
    ChildProcess monitor(command(arguments), options());
    EXPECT_EQ(monitor.waitForExit(), 2);
    const std::string error = monitor.readError();
    EXPECT_TRUE(error.starts_with("ostravel-monitor: --web: ")) << error;
    EXPECT_FALSE(std::filesystem::exists(path_));
  }
}

class TerminalTest : public MonitorProgramTest {
 protected:
  TerminalTest() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    ::grantpt(master_);
    ::unlockpt(master_);
    slave_ = ::open(::ptsname(master_), O_RDWR | O_NOCTTY | O_CLOEXEC);
  }
  ~TerminalTest() override {
    ::close(slave_);
    ::close(master_);
  }

  std::string lineOnTerminal(const std::string& noColor) const {
    ChildProcess monitor(command(), {.output = slave_, .environment = {"TZ=UTC", noColor}});
    waitUntilReady(monitor);
    send(frame(kEvent));
    std::string line;
    char character = '\0';
    while (character != '\n' && ::read(master_, &character, 1) == 1) {
      line += character;
    }
    return line;
  }

  int master_;
  int slave_ = -1;
};

TEST_F(TerminalTest, ShowsTheLevelInColour) {
  EXPECT_NE(lineOnTerminal("NO_COLOR").find("\x1b[32minfo \x1b[0m"), std::string::npos);
}

TEST_F(TerminalTest, FitsItsLinesIntoTheTerminal) {
  const winsize size{.ws_row = 24, .ws_col = 40, .ws_xpixel = 0, .ws_ypixel = 0};
  ASSERT_EQ(::ioctl(slave_, TIOCSWINSZ, &size), 0);
  EXPECT_EQ(lineOnTerminal("NO_COLOR=1"), "05:43:35 connected 1.25 ms   curl     -\r\n");
}

TEST_F(TerminalTest, ShowsNoColourWhenDisabled) {
  EXPECT_EQ(lineOnTerminal("NO_COLOR=1").find('\x1b'), std::string::npos);
}

TEST_F(MonitorProgramTest, PrintsItsVersionAndHelp) {
  ChildProcess version({OSTRAVEL_MONITOR_PROGRAM, "--version"});
  EXPECT_EQ(version.waitForExit(), 0);
  EXPECT_EQ(version.readOutput(), "ostravel-monitor 0.1.0\n");
  ChildProcess help({OSTRAVEL_MONITOR_PROGRAM, "--help"});
  EXPECT_EQ(help.waitForExit(), 0);
  EXPECT_NE(help.readOutput().find("--socket PATH"), std::string::npos);
}

TEST_F(MonitorProgramTest, RefusesUnknownArguments) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                    {"--unknown"},
                                                    {"--socket"},
                                                    {"--socket", path_, "extra"},
                                                    {"--socket", path_, "--mode", "668"},
                                                    {"--socket", path_, "--time", "zulu"},
                                                    {"--socket", path_, "--json=maybe"}}) {
    std::vector<std::string> whole{OSTRAVEL_MONITOR_PROGRAM};
    whole.insert(whole.end(), arguments.begin(), arguments.end());
    ChildProcess monitor(whole);
    EXPECT_EQ(monitor.waitForExit(), 2);
    const std::string error = monitor.readError();
    EXPECT_TRUE(error.starts_with("ostravel-monitor: ")) << error;
    EXPECT_EQ(error.find('\n'), error.size() - 1) << error;
  }
}

}  // namespace
}  // namespace ostravel::companion::test
