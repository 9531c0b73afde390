#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace ostravel::testing {

// A system call, or one with this value of an argument.
struct SystemCall {
  struct Argument {
    // From 0.
    unsigned place = 0;
    // Its lower half is compared.
    std::uint32_t value = 0;
  };

  long number = 0;
  std::optional<Argument> argument = std::nullopt;
};

// From now on, this call of the calling thread, and of the threads that it starts, fails with the
// error (seccomp(2)).
void failCalls(const SystemCall& call, int error);

// Runs body on a thread whose calls fail so.
void withFailingCalls(const SystemCall& call, int error, const std::function<void()>& body);

// Runs use on a thread of its own, again and again. Each time another of the system calls that it
// makes for sockets, files and kernel programs fails with the error: first the first, then the
// second, and so on. The last time none fails; only then use has to return true, which means that
// everything has worked. What threads do that use starts always succeeds.
void withEachCallFailing(int error, const std::function<bool()>& use);

}  // namespace ostravel::testing
