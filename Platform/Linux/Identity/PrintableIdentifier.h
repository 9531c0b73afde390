#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ostravel::linuxplatform {

// Identifiers longer than this do not exist: with more in one header line, proxies refuse the
// request.
inline constexpr std::size_t kMaximumIdentifierSize = 2048;

// What an application is called, from any bytes, as text that every proxy accepts in a header line:
// printable ASCII without a space at its beginning or end. Every other byte becomes "%" and two
// capital hexadecimal digits (RFC 3986, section 2.1); so does a "%" that two such digits of either
// case follow, and no other one. Different bytes have different identifiers. Empty when it would be
// longer than kMaximumIdentifierSize.
std::string printableIdentifier(std::string_view bytes);

}  // namespace ostravel::linuxplatform
