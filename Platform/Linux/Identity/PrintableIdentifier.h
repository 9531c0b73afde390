#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ostravel::linuxplatform {

// Proxies reject requests with longer header lines.
inline constexpr std::size_t kMaximumIdentifierSize = 2048;

// Converts an application's name, any bytes, to text that every proxy accepts in a header line:
// printable ASCII without a leading or trailing space. Every other byte becomes "%" and two
// uppercase hexadecimal digits (RFC 3986, section 2.1); so does a "%" that is followed by two such
// digits of either case, but no other. Different bytes have different identifiers. Empty if the
// result would exceed kMaximumIdentifierSize.
std::string printableIdentifier(std::string_view bytes);

}  // namespace ostravel::linuxplatform
