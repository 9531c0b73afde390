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
// Buffers that a loop keeps for reuse, as many as streams that move data at the same moment.
inline constexpr std::size_t kKeptBuffers = 16;

// What one read of a flow, which names no maximum, may deliver: as much as one of the connection.
inline constexpr std::size_t kMaximumChunk = platform::limits::kMaxRelayRead;

// Room for one chunk of the largest size even when the kernel's segments fill their pages badly.
inline constexpr int kPipeSize = 1024 * 1024;
static_assert(std::size_t{kPipeSize} >= 2 * kMaximumChunk);
// Below this a pipe moves less per system call than a buffer does. The kernel hands out pipes of
// one or two pages to a user who owns too many (pipe(7), pipe-user-pages-soft).
inline constexpr int kSmallestUsefulPipe = 64 * 1024;
// Pipes that a loop keeps for reuse: each pins kernel memory only while it holds data.
inline constexpr std::size_t kKeptPipes = 8;

// What chunks that wait for their readers may take together, in buffers and in pipes: a hundred
// and more transfers at full speed. Readers who have stopped reading pin theirs for as long as they
// like, so it has to be bounded.
inline constexpr std::size_t kMemoryForChunks = 128 * 1024 * 1024;

// What the streams of one user, and those of all together, may move before everything else that is
// ready on the loop gets its turn: a chunk of the largest size in and out again takes a quarter of
// a millisecond.
inline constexpr std::size_t kBytesPerTurn = 2 * kMaximumChunk;
inline constexpr std::size_t kBytesPerTurnOfAll = 2 * kBytesPerTurn;

// A direction is bulk when this many receives in a row filled their buffer: a shorter transfer is
// over before a pipe would pay.
inline constexpr unsigned kFullReadsBeforeSplice = 4;
// A direction is not bulk any more when this many chunks in a row were small ones.
inline constexpr unsigned kSmallChunksBeforeCopy = 8;
inline constexpr std::size_t kSmallChunk = 16 * 1024;

// How long after its SYN was released a connection may take to arrive. It arrives within the same
// millisecond unless the application gave up or something keeps it from us. Shorter than the second
// after which TCP repeats a SYN (RFC 6298), so that one that was lost goes direct with the first
// repetition.
inline constexpr auto kAcceptTimeout = 500ms;
// Connections accepted before other work of the loop gets its turn.
inline constexpr int kAcceptsPerEvent = 64;
// Connections that wait for being accepted; the kernel caps it (net.core.somaxconn).
inline constexpr int kListenBacklog = 4096;
// After a failure for lack of descriptors or memory, accepting rests this long. Descriptors come
// back when tunnels end, of which the kernel does not tell.
inline constexpr auto kAcceptPause = 100ms;

// An idle tunnel sends something before conntrack forgets it, which it does after a few minutes on
// some systems (nf_conntrack_tcp_timeout_established): without its entry a connection is not
// redirected any more, and dies. Its peer is this machine, which answers as long as the socket is
// open; that it does not for ten minutes means that it cannot be reached any more.
inline constexpr auto kKeepAliveIdle = 90s;
inline constexpr auto kKeepAliveInterval = 30s;
inline constexpr int kKeepAliveProbes = 20;

// A socket that was closed in order discards what its peer still sends: first for this long, and
// after that until the peer's kernel has acknowledged everything, looked at after twice the time
// each, but not longer than the bound.
inline constexpr auto kLingerInterval = 2s;
inline constexpr auto kLingerBound = 30s;
// One receive that discards; nothing is copied, so that only fairness bounds it.
inline constexpr std::size_t kDiscardSize = 1024 * 1024;
inline constexpr int kDiscardsPerEvent = 16;

// Descriptors left for what is not counted: listeners, timers, the queue, logs, the health probe,
// and the tunnels whose sockets are being made.
inline constexpr std::size_t kDescriptorReserve = 256;

}  // namespace ostravel::linuxplatform::limits
