#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <vector>

namespace ostravel::testing {

// What a netlink socket receives: a datagram, or an error of recv(2).
struct NetlinkAnswer {
  std::vector<char> bytes;
  int error = 0;
};

// As long as it exists, nothing that the kernel sends to a netlink socket of this process arrives
// as it was sent: instead of each datagram its reader receives what the function makes of it, one
// answer after the other. When there is nothing left, a reader does not wait: it gets EAGAIN, as
// after a timeout. The rest of the reader's buffer is overwritten, so that reading beyond the end
// of an answer has consequences.
//
// Programs that link this file call its recvmsg, recvmmsg and recv instead of the C library's.
// There is at most one object, used by one thread.
class AlteredAnswers {
 public:
  using Alter = std::function<std::vector<NetlinkAnswer>(const std::vector<char>& sent)>;

  explicit AlteredAnswers(Alter alter);
  AlteredAnswers(const AlteredAnswers&) = delete;
  AlteredAnswers& operator=(const AlteredAnswers&) = delete;
  // What has not been received yet is lost.
  ~AlteredAnswers();

 private:
  friend ssize_t receiveAltered(int descriptor, char* buffer, std::size_t size);
  ssize_t receive(int descriptor, char* buffer, std::size_t size);

  const Alter alter_;
  struct Waiting {
    int descriptor = -1;
    NetlinkAnswer answer;
  };
  std::vector<Waiting> waiting_;
};

}  // namespace ostravel::testing
