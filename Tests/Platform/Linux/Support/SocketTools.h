#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/KernelAddress.h"

namespace ostravel::testing {

class Helper;

linuxplatform::SocketEndpoint loopbackIPv4(std::uint16_t port);
linuxplatform::SocketEndpoint loopbackIPv6(std::uint16_t port);

// Sockets and endpoints in the types of the platform, of every protocol and family, for tests of
// what the kernel knows about a socket. TestSocket, which depends on nothing under test, is for
// moving bytes.

// A flow over the loopback interface.
linuxplatform::FlowTuple flowOverIPv4(linuxplatform::TransportProtocol protocol,
                                      std::uint16_t source, std::uint16_t destination);
linuxplatform::FlowTuple flowOverIPv6(linuxplatform::TransportProtocol protocol,
                                      std::uint16_t source, std::uint16_t destination);

// The flow of a new connection of the helper program to the listener, over IPv4.
linuxplatform::FlowTuple connectFrom(Helper& helper, const FileDescriptor& listener);

// The endpoint for a socket of this family, mapped to IPv6 if necessary.
linuxplatform::KernelAddress kernelAddress(int socketFamily,
                                           const linuxplatform::SocketEndpoint& endpoint);

std::uint16_t portOf(const FileDescriptor& socket);
std::uint64_t cookieOf(const FileDescriptor& socket);
std::uint32_t inodeOf(const FileDescriptor& socket);

FileDescriptor makeSocket(int family, int type);
bool bindTo(const FileDescriptor& socket, int family,
            const linuxplatform::SocketEndpoint& endpoint);
bool connectTo(const FileDescriptor& socket, int family,
               const linuxplatform::SocketEndpoint& endpoint);

// A TCP socket that listens on 127.0.0.1 on a port chosen by the system.
FileDescriptor makeListener();

}  // namespace ostravel::testing
