#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Tracing/ConnectRecord.h"

namespace ostravel::linuxplatform {

// The published sender of a SYN.
struct PublishedConnect {
  ConnectRecord record;
  // As in SocketInformation.
  uid_t socketUser = 0;
  std::uint32_t boundInterface = 0;
  std::uint64_t cookie = 0;
  std::uint64_t cgroup = 0;
  // Represents the location of the running file: while this is the same, so are the target of
  // /proc/PID/exe and the mounts in our mount namespace. 0 if unknown.
  std::uint64_t place = 0;

  friend bool operator==(const PublishedConnect&, const PublishedConnect&) = default;
};

// The table in which a program in the kernel publishes the sender of each SYN before it leaves:
//
//   hash of addresses and ports ──> set of kWays slots, each with a sequence number
//
// A writer claims a slot by making its sequence odd, atomically, and makes it even again when it
// has finished. A reader that finds the same even sequence before and after copying has a
// consistent copy. It never waits and makes no system call: a packet's slot was complete before the
// packet left, so a slot that is being written belongs to another packet.
//
// An entry applies only to the packet with its addresses, ports and initial sequence number. The
// last distinguishes connections that reuse addresses and ports.
//
// Reads memory that the kernel writes; does not own it. Usable from any thread.
class ConnectTable {
 public:
  // The following must match ConnectTable.bpf.c.
  static constexpr std::size_t kWays = 4;
  static constexpr std::size_t kSets = 1024;
  static constexpr std::size_t kProgramCounters = 4096;

  struct Slot {
    std::uint64_t sequence;
    std::uint64_t cookie;
    // As in the packet.
    std::array<std::uint64_t, 2> source;
    std::array<std::uint64_t, 2> destination;
    std::uint16_t sourcePort;
    std::uint16_t destinationPort;
    std::uint32_t initialSequence;
    KernelConnectRecord record;
    std::uint32_t socketUser;
    std::uint32_t boundInterface;
    std::uint32_t family;
    // The counter of the process when it sent the SYN.
    std::uint32_t programChanges;
    std::uint64_t place;
    std::uint64_t cgroup;
  };
  static_assert(sizeof(Slot) == 128);

  using Set = std::array<Slot, kWays>;

  struct State {
    // The observed network namespace (SO_NETNS_COOKIE).
    std::uint64_t network;
    // Makes the set of a connection unpredictable.
    std::uint64_t seed;
    // This process, and the address of its mount namespace in the kernel.
    std::uint32_t extension;
    std::uint32_t proxyPort;
    std::uint64_t mountNamespace;
    // See ListenerWatch.
    std::uint32_t proxyOwner;
    // The bits of the packet mark that may be changed, and their value for our own sockets and the
    // proxy's. 0 if no socket is marked.
    std::uint32_t markMask;
    std::uint32_t mark;
    // Not 0 if the senders of marked sockets are not published any more.
    std::uint32_t leavesOutMarked;
    // See ListenerWatch.
    std::uint64_t listenerChanges;
    // Counts the programs executed, by process number; several processes share a counter.
    std::array<std::uint32_t, kProgramCounters> programChanges;
  };

  // sets: kSets of them. Both outlive this object.
  ConnectTable(const Set* sets, const State* state) : sets_(sets), state_(state) {}

  // Empty unless the sender of the SYN was published, is still in the table, and has not executed
  // another program since.
  std::optional<PublishedConnect> find(const FlowTuple& flow, std::uint32_t initialSequence) const;

  // The same for a socket and any packet; searches the whole table.
  std::optional<PublishedConnect> findSocket(std::uint64_t cookie) const;

  // The set for a TCP connection.
  std::size_t setOf(const FlowTuple& flow) const;

 private:
  bool isUnchanged(const Slot& slot) const;

  const Set* const sets_;
  const State* const state_;
};

}  // namespace ostravel::linuxplatform
