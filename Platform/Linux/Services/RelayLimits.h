#pragma once

#include <chrono>
#include <cstddef>

#include "Platform/Interface/SystemLimits.h"

namespace ostravel::linuxplatform::limits {

using namespace std::chrono_literals;

// One receive into memory. Larger buffers gain little before splice takes over.
inline constexpr std::size_t kBufferSize = 64 * 1024;
// A chunk of at most this size is copied out of its buffer.
inline constexpr std::size_t kSmallRead = 4096;
// Buffers that a loop keeps for reuse, as many as streams that move data at the same time.
inline constexpr std::size_t kKeptBuffers = 16;

// The largest chunk that one read of a flow delivers, the same as for a connection.
inline constexpr std::size_t kMaximumChunk = platform::limits::kMaxRelayRead;

// Room for a chunk of the largest size even if small segments waste most of their pages.
inline constexpr int kPipeSize = 1024 * 1024;
static_assert(std::size_t{kPipeSize} >= 2 * kMaximumChunk);
// A smaller pipe moves less per system call than a buffer does. The kernel gives pipes of one or
// two pages to a user who has too many (pipe(7), pipe-user-pages-soft).
inline constexpr int kSmallestUsefulPipe = 64 * 1024;
// Pipes that a loop keeps for reuse; each pins kernel memory only while it holds data.
inline constexpr std::size_t kKeptPipes = 8;

// Limit on the memory, in buffers and in pipes, of chunks that wait for their readers: enough for
// more than a hundred transfers at full speed. A reader that stops pins its chunks indefinitely, so
// the total has to be bounded.
inline constexpr std::size_t kMemoryForChunks = 128 * 1024 * 1024;

// The bytes that the streams of one user, and of all users together, may move before the loop's
// other ready work gets its turn: moving a chunk of the largest size in and out takes a quarter of
// a millisecond.
inline constexpr std::size_t kBytesPerTurn = 2 * kMaximumChunk;
inline constexpr std::size_t kBytesPerTurnOfAll = 2 * kBytesPerTurn;

// A direction becomes bulk when this many consecutive receives fill their buffer: shorter transfers
// end before a pipe pays off.
inline constexpr unsigned kFullReadsBeforeSplice = 4;
// A direction stops being bulk after this many consecutive small chunks.
inline constexpr unsigned kSmallChunksBeforeCopy = 8;
inline constexpr std::size_t kSmallChunk = 16 * 1024;

// How long a connection may take to arrive after its SYN was released. It takes less than a
// millisecond unless the application gave up or something intercepts it. Shorter than the second
// after which TCP retransmits a SYN (RFC 6298), so that a lost connection goes direct with the
// first retransmission.
inline constexpr auto kAcceptTimeout = 500ms;
static_assert(kAcceptTimeout < 1s);
// Limit on the connections accepted before the loop's other work gets its turn.
inline constexpr int kAcceptsPerEvent = 64;
// Backlog of connections to accept; the kernel caps it (net.core.somaxconn).
inline constexpr int kListenBacklog = 4096;
// Accepting pauses this long after a failure for lack of descriptors or memory. Descriptors become
// free when tunnels end, which the kernel does not signal.
inline constexpr auto kAcceptPause = 100ms;

// Probes keep an idle tunnel's conntrack entry alive, which some systems drop after a few minutes
// (nf_conntrack_tcp_timeout_established): without it the connection is no longer redirected, and
// breaks. The peer is on this machine, which answers as long as the socket is open; no answer for
// ten minutes means that it has become unreachable.
inline constexpr auto kKeepAliveIdle = 90s;
inline constexpr auto kKeepAliveInterval = 30s;
inline constexpr int kKeepAliveProbes = 20;

// A socket that was closed in order discards incoming data: first for the interval, then until the
// peer's kernel has acknowledged everything, checked after intervals that double each time, but no
// longer than the bound.
inline constexpr auto kLingerInterval = 2s;
inline constexpr auto kLingerBound = 30s;
// Size of one discarding receive. It copies nothing, so only fairness bounds it.
inline constexpr std::size_t kDiscardSize = 1024 * 1024;
inline constexpr int kDiscardsPerEvent = 16;

// Descriptors reserved for uses that are not counted: listeners, timers, the queue, logs, the
// health probe, and tunnels whose sockets are being created.
inline constexpr std::size_t kDescriptorReserve = 256;

// With a lower limit of open files there would be so few tunnels that the extension does not start.
inline constexpr std::size_t kFewestDescriptors = kDescriptorReserve + 32;

}  // namespace ostravel::linuxplatform::limits
