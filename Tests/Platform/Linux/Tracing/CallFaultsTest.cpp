// What becomes of what the kernel records when a system call fails while it is set up: there is a
// reason why nothing is recorded, or everything is.

#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "Platform/Linux/Tracing/ArrivalFilter.h"
#include "Platform/Linux/Tracing/ConnectPublisher.h"
#include "Platform/Linux/Tracing/ConnectTracer.h"
#include "Platform/Linux/Tracing/ScriptTracer.h"
#include "Tests/Platform/Linux/Support/FailingCalls.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

// Not EAGAIN, after which the library repeats a call.
constexpr int kError = ENOMEM;
constexpr std::uint16_t kProxyPort = 8080;

// Each kind of call, rather than each call: removing a program takes the kernel long.
const std::vector<SystemCall> kCalls{{SYS_bpf, {{0, BPF_MAP_CREATE}}},
                                     {SYS_bpf, {{0, BPF_PROG_LOAD}}},
                                     {SYS_bpf, {{0, BPF_LINK_CREATE}}},
                                     {SYS_bpf, {{0, BPF_RAW_TRACEPOINT_OPEN}}},
                                     {SYS_mmap, {{3, MAP_SHARED}}},
                                     {SYS_getrandom},
                                     {SYS_getsockopt},
                                     {SYS_socket},
                                     {SYS_openat}};

// Empty if it works.
using Start = std::function<platform::OptionalError()>;

// Returns how often it was started although a kind of call failed.
std::size_t startWithFailingCalls(const Start& start) {
  std::size_t successes = 0;
  EXPECT_FALSE(start());
  for (const SystemCall& call : kCalls) {
    withFailingCalls(call, kError, [&] {
      const auto error = start();
      if (!error) {
        ++successes;
      } else {
        EXPECT_NE(error->localizedDescription, "") << call.number;
      }
    });
  }
  EXPECT_FALSE(start());
  return successes;
}

template <typename Value>
platform::OptionalError errorOf(const platform::Result<Value>& result) {
  return result ? platform::OptionalError() : result.error();
}

TEST(TracingCallFaultsTest, ConnectsAreTracedOrTheReasonIsKnown) {
  EXPECT_LT(startWithFailingCalls([] { return errorOf(ConnectTracer::start()); }), kCalls.size());
}

TEST(TracingCallFaultsTest, ConnectsArePublishedOrTheReasonIsKnown) {
  const auto tracer = ConnectTracer::start();
  ASSERT_TRUE(tracer);
  EXPECT_LT(startWithFailingCalls(
                [&tracer] { return errorOf(ConnectPublisher::start(**tracer, kProxyPort)); }),
            kCalls.size());
}

TEST(TracingCallFaultsTest, ArrivalsAreFilteredOrTheReasonIsKnown) {
  EXPECT_LT(startWithFailingCalls([] { return errorOf(ArrivalFilter::load()); }), kCalls.size());
}

TEST(TracingCallFaultsTest, ScriptsAreTracedOrTheReasonIsKnown) {
  EXPECT_LT(startWithFailingCalls([] { return errorOf(ScriptTracer::start()); }), kCalls.size());
}

}  // namespace
}  // namespace ostravel::linuxplatform
