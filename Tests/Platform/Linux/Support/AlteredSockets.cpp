#include "Tests/Platform/Linux/Support/AlteredSockets.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <mutex>
#include <utility>

namespace ostravel::testing {

namespace {

std::mutex lock;
// Guarded by lock. Shared with threads that call it.
std::shared_ptr<const AlteredSockets::Alter> active;

// The C library's function of this name.
template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

// room: of the answer that the call has written, of which size bytes fit. result: of the call.
int alterAnswer(const SocketQuestion& question, int result, void* answer, socklen_t room,
                socklen_t* size) {
  std::shared_ptr<const AlteredSockets::Alter> alter;
  {
    const std::lock_guard guard(lock);
    alter = active;
  }
  if (!alter) {
    return result;
  }
  const int error = errno;
  auto* const bytes = static_cast<char*>(answer);
  const SocketAnswer truth = result == 0 ? SocketAnswer{std::string(bytes, std::min(room, *size))}
                                         : SocketAnswer{.error = error};
  const auto altered = (*alter)(question, truth);
  errno = error;
  if (!altered) {
    return result;
  }
  if (altered->error != 0) {
    errno = altered->error;
    return -1;
  }
  // What it does not say must not be read.
  constexpr char kGarbage = '\0';
  std::fill_n(bytes, room, kGarbage);
  std::copy_n(altered->bytes.begin(), std::min<std::size_t>(room, altered->bytes.size()), bytes);
  *size = static_cast<socklen_t>(altered->bytes.size());
  return 0;
}

}  // namespace

AlteredSockets::AlteredSockets(Alter alter) {
  const std::lock_guard guard(lock);
  active = std::make_shared<const Alter>(std::move(alter));
}

AlteredSockets::~AlteredSockets() {
  const std::lock_guard guard(lock);
  active.reset();
}

std::vector<SocketAlteration> incompleteAnswers(std::size_t whole) {
  std::vector<SocketAlteration> alterations;
  for (const int error :
       {EACCES, EINVAL, ENOBUFS, ENOENT, ENOMEM, ENOPROTOOPT, ENOTCONN, EOPNOTSUPP, EPERM}) {
    alterations.push_back(
        {"error " + std::to_string(error),
         [error](const SocketAnswer& /*truth*/) { return SocketAnswer{.error = error}; }});
  }
  for (std::size_t size = 0; size < whole; ++size) {
    alterations.push_back({std::to_string(size) + " bytes", [size](SocketAnswer answer) {
                             answer.bytes.resize(std::min(size, answer.bytes.size()));
                             return answer;
                           }});
  }
  return alterations;
}

std::vector<SocketAlteration> wrongAnswers() {
  const auto filled = [](char byte) {
    return [byte](SocketAnswer answer) {
      std::fill(answer.bytes.begin(), answer.bytes.end(), byte);
      return answer;
    };
  };
  return {{"zeros", filled('\0')}, {"ones", filled('\xFF')}, {"longer", [](SocketAnswer answer) {
                                                                answer.bytes +=
                                                                    std::string(1000, '\xFF');
                                                                return answer;
                                                              }}};
}

}  // namespace ostravel::testing

using ostravel::testing::alterAnswer;
using ostravel::testing::next;
using ostravel::testing::SocketQuestion;

extern "C" {

int getsockopt(int descriptor, int level, int option, void* value, socklen_t* size) noexcept {
  static auto* const original = next<int(int, int, int, void*, socklen_t*)>("getsockopt");
  const socklen_t room = *size;
  const int result = original(descriptor, level, option, value, size);
  return alterAnswer({SocketQuestion::Call::option, level, option}, result, value, room, size);
}

int getsockname(int descriptor, sockaddr* address, socklen_t* size) noexcept {
  static auto* const original = next<int(int, sockaddr*, socklen_t*)>("getsockname");
  const socklen_t room = *size;
  const int result = original(descriptor, address, size);
  return alterAnswer({SocketQuestion::Call::ownAddress}, result, address, room, size);
}

int getpeername(int descriptor, sockaddr* address, socklen_t* size) noexcept {
  static auto* const original = next<int(int, sockaddr*, socklen_t*)>("getpeername");
  const socklen_t room = *size;
  const int result = original(descriptor, address, size);
  return alterAnswer({SocketQuestion::Call::peerAddress}, result, address, room, size);
}
}
