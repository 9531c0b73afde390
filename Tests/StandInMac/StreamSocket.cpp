#include "Tests/StandInMac/StreamSocket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "Tests/StandInMac/WorkerPool.h"

namespace ostravel::standin {

namespace {

// How long an orderly end waits for the other side to end too.
constexpr std::chrono::milliseconds kLinger(2000);

[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(what);
}

void signal(int event) {
  const std::uint64_t one = 1;
  if (::write(event, &one, sizeof one) < 0) {
    fail("eventfd");
  }
}

void setNonBlocking(int descriptor) {
  ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK);
}

}  // namespace

StreamSocket::StreamSocket(int descriptor)
    : descriptor_(descriptor),
      readingAbandoned_(::eventfd(0, EFD_CLOEXEC)),
      writingAbandoned_(::eventfd(0, EFD_CLOEXEC)) {
  setNonBlocking(descriptor_);
}

StreamSocket::~StreamSocket() {
  ::close(readingAbandoned_);
  ::close(writingAbandoned_);
  ::close(descriptor_);
}

int StreamSocket::waitFor(short events, int abandoned) const {
  std::array<pollfd, 2> entries{pollfd{.fd = descriptor_, .events = events, .revents = 0},
                                pollfd{.fd = abandoned, .events = POLLIN, .revents = 0}};
  pollOnWorker(entries);
  return entries[1].revents != 0 ? ECANCELED : 0;
}

void StreamSocket::connect(std::vector<std::byte> address, Completion completion) {
  runOnWorker([self = shared_from_this(), address = std::move(address),
               completion = std::move(completion)] {
    sockaddr_storage storage{};
    std::copy(address.begin(), address.end(), reinterpret_cast<std::byte*>(&storage));
    int error = 0;
    if (::connect(self->descriptor_, reinterpret_cast<const sockaddr*>(&storage),
                  static_cast<socklen_t>(address.size())) < 0) {
      error = errno;
    }
    if (error == EINPROGRESS) {
      error = self->waitToWrite();
      socklen_t size = sizeof error;
      if (error == 0) {
        ::getsockopt(self->descriptor_, SOL_SOCKET, SO_ERROR, &error, &size);
      }
    }
    completion(error);
  });
}

void StreamSocket::read(std::size_t minimum, std::size_t maximum, ReadCompletion completion) {
  runOnWorker([self = shared_from_this(), minimum, maximum, completion = std::move(completion)] {
    std::vector<std::byte> bytes(maximum);
    std::size_t count = 0;
    int error = 0;
    while (count < minimum && error == 0) {
      error = self->waitToRead();
      if (error != 0) {
        break;
      }
      const auto result = ::recv(self->descriptor_, bytes.data() + count, maximum - count, 0);
      if (result == 0) {
        break;
      }
      if (result > 0) {
        count += static_cast<std::size_t>(result);
      } else if (errno != EAGAIN && errno != EINTR) {
        error = errno;
      }
    }
    bytes.resize(error == 0 ? count : 0);
    completion(std::move(bytes), error);
  });
}

void StreamSocket::write(std::vector<std::byte> bytes, Completion completion) {
  runOnWorker(
      [self = shared_from_this(), bytes = std::move(bytes), completion = std::move(completion)] {
        std::span<const std::byte> left = bytes;
        int error = 0;
        while (!left.empty() && error == 0) {
          error = self->waitToWrite();
          if (error != 0) {
            break;
          }
          const auto result = ::send(self->descriptor_, left.data(), left.size(), MSG_NOSIGNAL);
          if (result >= 0) {
            left = left.subspan(static_cast<std::size_t>(result));
          } else if (errno != EAGAIN && errno != EINTR) {
            error = errno;
          }
        }
        completion(error);
      });
}

void StreamSocket::endSending() {
  ::shutdown(descriptor_, SHUT_WR);
}

void StreamSocket::abandonReading() {
  signal(readingAbandoned_);
}

void StreamSocket::abandon() {
  signal(readingAbandoned_);
  signal(writingAbandoned_);
}

void StreamSocket::close() {
  if (isEnded_.exchange(true)) {
    return;
  }
  abandon();
  endSending();
  // Closing with bytes unread would make it a reset.
  runOnWorker([self = shared_from_this()] {
    std::array<std::byte, 65536> unwanted;
    std::array entries{pollfd{.fd = self->descriptor_, .events = POLLIN, .revents = 0}};
    while (pollOnWorker(entries, kLinger)) {
      const auto result = ::recv(self->descriptor_, unwanted.data(), unwanted.size(), 0);
      if (result == 0 || (result < 0 && errno != EAGAIN && errno != EINTR)) {
        break;
      }
    }
  });
}

void StreamSocket::reset() {
  if (isEnded_.exchange(true)) {
    return;
  }
  abandon();
  // To an unspecified address: ends the stream at once with a reset (connect(2)).
  sockaddr nowhere{};
  nowhere.sa_family = AF_UNSPEC;
  ::connect(descriptor_, &nowhere, sizeof nowhere);
}

void StreamSocket::leaveOpen() {
  if (isEnded_.exchange(true)) {
    return;
  }
  abandon();
  static std::mutex lock;
  static auto& open = *new std::vector<std::shared_ptr<StreamSocket>>();
  const std::lock_guard guard(lock);
  open.push_back(shared_from_this());
}

StreamPair makeStreamPair() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int application = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::bind(listener, generic, size) < 0 || ::listen(listener, 1) < 0 ||
      ::getsockname(listener, generic, &size) < 0 || ::connect(application, generic, size) < 0) {
    fail("loopback");
  }
  const int provider = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (provider < 0) {
    fail("accept");
  }
  ::close(listener);
  return {provider, application};
}

}  // namespace ostravel::standin
