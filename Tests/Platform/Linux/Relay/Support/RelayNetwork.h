#pragma once

namespace ostravel::linuxplatform::test {

// The addresses of the simulated applications, on the loopback interface of the private network.
inline constexpr const char* kApplicationIPv4 = "10.0.0.2";
inline constexpr const char* kApplicationIPv6 = "2001:db8::2";

// A new IPv6 address becomes reachable only when a kernel worker has processed it, and ip(8) does
// not wait for that. The test fails if it does not happen.
void waitUntilReachable(const char* ipv6Address);

}  // namespace ostravel::linuxplatform::test
