#pragma once

// Included before everything else when a source is compiled for the real target on this machine.
//
// The C and C++ headers are this machine's: its C library, and the standard library of the Mac,
// libc++. They only work for a target that they take for Linux on x86-64, so they are included with
// those names defined, and the target's own names are restored afterwards. The 64-bit integers are
// the target's (bits/stdint-intn.h). What this does not check: constants and other types of the C
// library whose values or widths differ, and headers that only one of the two systems has.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <compare>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

static_assert(std::is_same_v<std::int64_t, long long>);
static_assert(std::is_same_v<std::uint64_t, unsigned long long>);

#undef __linux__
#ifdef __arm64__
#undef __x86_64__
#endif
#define __APPLE__ 1

// Calls and constants that Linux has and macOS has not: using one is an error from here on.
#undef SOCK_CLOEXEC
#undef SOCK_NONBLOCK
#undef MSG_NOSIGNAL
#pragma GCC poison SOCK_CLOEXEC SOCK_NONBLOCK MSG_NOSIGNAL accept4 pipe2 ppoll epoll_create1
#pragma GCC poison eventfd timerfd_create signalfd splice gettid
