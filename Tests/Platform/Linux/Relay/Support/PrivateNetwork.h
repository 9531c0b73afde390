#pragma once

namespace ostravel::linuxplatform::test {

// The addresses of the simulated applications.
inline constexpr const char* kApplicationIPv4 = "10.0.0.2";
inline constexpr const char* kApplicationIPv6 = "2001:db8::2";

// Moves the process into a new network namespace whose loopback interface has the addresses above.
// Ends the process if that fails.
void enterPrivateNetwork();

// A new IPv6 address becomes reachable only when a kernel worker has processed it, and ip(8) does
// not wait for that. Ends the process if it does not happen.
void waitUntilReachable(const char* ipv6Address);

// Runs a command, such as ip(8) or nft(8); ends the process if it fails.
void runCommand(const char* command);

}  // namespace ostravel::linuxplatform::test
