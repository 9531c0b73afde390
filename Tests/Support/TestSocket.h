#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ostravel::testing {

// A blocking stream socket of a client or an origin, independent of the library under test. Every
// operation that waits throws std::runtime_error when nothing happens for a long time.
class TestSocket {
 public:
  // How the stream of the other side ended.
  enum class End { orderly, reset };

  static TestSocket connectTcp(std::uint16_t port, const std::string& address = "127.0.0.1");
  static TestSocket connectUnix(const std::string& path);
  // Starts connecting and does not wait; for filling a listener's queue.
  static TestSocket beginConnectTcp(std::uint16_t port, const std::string& address);
  // Of the address's family, neither bound nor connected. With SOCK_NONBLOCK it never waits.
  static TestSocket makeTcp(const std::string& address, int flags = 0);

  explicit TestSocket(int descriptor);
  TestSocket(TestSocket&& other) noexcept;
  TestSocket& operator=(TestSocket&& other) noexcept;
  ~TestSocket();

  void send(std::string_view bytes) const;
  // Sends until the other side accepts nothing for `patience`; returns how many bytes were sent.
  std::size_t sendUntilStalled(std::string_view bytes, std::chrono::milliseconds patience) const;
  // A byte outside the stream (tcp(7)).
  void sendUrgent(char byte) const;
  std::string receive(std::size_t size) const;
  std::string receiveThrough(std::string_view end) const;
  std::string receiveToEnd() const;
  // Discards what still arrives.
  End waitForEnd() const;
  // Waits for an error without reading.
  bool waitForReset() const;
  bool hasBytesWithin(std::chrono::milliseconds time) const;

  void endSending() const;
  // Ends other threads' calls on this socket, and makes later ones fail.
  void interrupt() const;
  void close();
  void reset();  // closes so that the other side sees a reset

  int descriptor() const { return descriptor_; }
  std::uint16_t localPort() const;
  // SO_MARK
  void setMark(std::uint32_t mark) const;
  // To the port or, if it is 0, one chosen by the system.
  void bindTo(const std::string& address, std::uint16_t port) const;
  // 0 or an errno; EINPROGRESS if it does not wait.
  int connectTo(const std::string& address, std::uint16_t port) const;
  // Of a connection that was begun: 0 or its errno; EINPROGRESS if it is undecided for this time.
  int connectResult(std::chrono::milliseconds time) const;

 private:
  int descriptor_;
};

class TestListener {
 public:
  explicit TestListener(const std::string& address = "127.0.0.1", std::uint16_t port = 0,
                        int backlog = 4096);
  ~TestListener();
  TestListener(const TestListener&) = delete;
  TestListener& operator=(const TestListener&) = delete;

  std::uint16_t port() const { return port_; }
  std::string target() const;  // address:port
  TestSocket accept() const;
  // The source port of the next connection, which is closed or reset; 0 if none comes in this time.
  std::uint16_t acceptOne(std::chrono::milliseconds time) const;
  std::uint16_t acceptAndResetOne(std::chrono::milliseconds time) const;

 private:
  struct Accepted {
    TestSocket socket;
    std::uint16_t sourcePort = 0;
  };

  std::optional<Accepted> acceptWithin(std::chrono::milliseconds time) const;

  int descriptor_;
  std::string address_;
  std::uint16_t port_ = 0;
};

// A port at 127.0.0.1 without a listener.
std::uint16_t closedPort();

bool hasIPv6Loopback();

}  // namespace ostravel::testing
