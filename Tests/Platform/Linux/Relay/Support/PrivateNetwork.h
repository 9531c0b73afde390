#pragma once

namespace ostravel::linuxplatform::test {

// The addresses of the pretended applications.
inline constexpr const char* kApplicationIPv4 = "10.0.0.2";
inline constexpr const char* kApplicationIPv6 = "2001:db8::2";

// Moves the process into a network namespace of its own that has a loopback interface with the
// addresses above. Ends the process when that is not possible.
void enterPrivateNetwork();

// An address of IPv6 that was added becomes reachable only when a worker of the kernel got to it,
// for which ip(8) does not wait. Ends the process when that does not happen.
void waitUntilReachable(const char* ipv6Address);

// Runs a command, such as one of ip(8) or nft(8); ends the process when it fails.
void runCommand(const char* command);

}  // namespace ostravel::linuxplatform::test
