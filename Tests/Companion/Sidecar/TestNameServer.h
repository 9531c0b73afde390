#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>

namespace ostravel::companion::test {

// A name server (RFC 1035) on 127.0.0.1 whose answer depends on the first label of the name:
//
//   four...      127.0.0.7
//   six...       ::7
//   both...      both of these
//   large...     127.0.0.7, but over TCP alone
//   silent...    no answer
//   other names  do not exist
//
// Answers from its own thread.
class TestNameServer {
 public:
  TestNameServer();
  ~TestNameServer();
  TestNameServer(const TestNameServer&) = delete;
  TestNameServer& operator=(const TestNameServer&) = delete;

  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

  // Waits until that many questions have arrived.
  void waitForQuestions(int count) const;

 private:
  enum class Transport { datagram, stream };

  void run();
  void answerDatagram();
  void answerStream();
  std::string answerTo(std::string_view question, Transport transport);

  int datagrams_ = -1;
  int listener_ = -1;
  int end_[2] = {-1, -1};
  std::uint16_t port_ = 0;
  std::atomic<int> questions_ = 0;
  std::thread thread_;
};

}  // namespace ostravel::companion::test
