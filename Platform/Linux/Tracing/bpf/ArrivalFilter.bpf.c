// A filter for listeners (SO_ATTACH_BPF), which the sockets that they accept inherit. It drops the
// first packet of an established connection that reaches the listener right after the handshake.
//
// That packet was looked up while the kernel replaced the connection's request socket by the
// accepted one, and found neither of them. The listener would answer it with a reset, although the
// connection is sound. Once it is dropped, its sender repeats it, and the accepted socket is there.
//
// The packet has the same numbers as the acknowledgement that completed the handshake. Any other
// packet, and each but the first one, is left to the kernel: it may belong to a connection that has
// ended, whose peer needs the reset.
//
// Packets for a request socket pass this filter too, as packets of the listener: the
// acknowledgement, and often the first data, which then creates the accepted socket as well. They
// still have their conntrack entry, which the kernel takes from a packet right before it passes the
// filter of a socket that the lookup has found. If a kernel should differ in this, nothing is
// dropped.

#include "KernelInterface.bpf.h"

typedef unsigned char u8;
typedef unsigned short u16;

enum {
  kMapTypeArray = 2,
  kStateListening = 10,
  // A power of two. A handshake is remembered until another one has the same place.
  kPlaces = 4096,

  kDrop = 0,
  kKeepAll = -1,

  // Flags of TCP (RFC 9293, section 3.1).
  kSynchronize = 2,
  kReset = 4,
  kAcknowledge = 16,
};

// bpf_sock of <linux/bpf.h>, up to what is read here.
struct Socket {
  u32 unused[18];
  u32 state;
};

// __sk_buff of <linux/bpf.h>, likewise.
struct Packet {
  u32 unused[42];
  const struct Socket* socket;
};

struct Header {
  u16 sourcePort;
  u16 destinationPort;
  u32 sequence;
  u32 acknowledged;
  u8 length;
  u8 flags;
};

// Of the kernel. With the conntrack entry, and bits that describe it, or 0.
struct sk_buff {
  unsigned long _nfct;
} KERNEL_TYPE;

// The numbers of an acknowledgement that has completed a handshake, or seemed to.
struct Handshake {
  u16 sourcePort;
  u16 destinationPort;
  u32 sequence;
  u32 acknowledged;
  // Whether a packet with these numbers has been dropped.
  u32 hasDropped;
};

struct {
  int (*type)[kMapTypeArray];
  u32* key;
  struct Handshake* value;
  int (*max_entries)[kPlaces];
} handshakes SECTION(".maps");

static long (*const loadBytes)(const void* packet, u32 offset, void* into, u32 size) = (void*)26;
static long (*const readKernel)(void* into, u32 size, const void* from) = (void*)113;

INLINE int isForRequest(const struct Packet* packet) {
  unsigned long tracked = 0;
  readKernel(&tracked, sizeof tracked, &((const struct sk_buff*)packet)->_nfct);
  return tracked != 0;
}

SECTION("socket") int filterArrivals(struct Packet* packet) {
  const struct Socket* const socket = packet->socket;
  if (socket == 0 || socket->state != kStateListening) {
    return kKeepAll;
  }
  struct Header header;
  if (loadBytes(packet, 0, &header, sizeof header) != 0 ||
      (header.flags & (kSynchronize | kReset | kAcknowledge)) != kAcknowledge) {
    return kKeepAll;
  }
  // Initial numbers are random, and those of simultaneous connections differ.
  const u32 place = (header.sequence ^ header.acknowledged) % kPlaces;
  struct Handshake* const handshake = lookupElement(&handshakes, &place);
  if (handshake == 0) {
    return kKeepAll;
  }
  const int isKnown = handshake->sequence == header.sequence &&
                      handshake->acknowledged == header.acknowledged &&
                      handshake->sourcePort == header.sourcePort &&
                      handshake->destinationPort == header.destinationPort;
  if (!isForRequest(packet)) {
    if (!isKnown || handshake->hasDropped) {
      return kKeepAll;
    }
    handshake->hasDropped = 1;
    return kDrop;
  }
  if (isKnown) {
    return kKeepAll;
  }
  handshake->sequence = header.sequence;
  handshake->acknowledged = header.acknowledged;
  handshake->sourcePort = header.sourcePort;
  handshake->destinationPort = header.destinationPort;
  handshake->hasDropped = 0;
  return kKeepAll;
}
