#pragma once

#include <libmnl/libmnl.h>
#include <linux/netlink.h>

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

namespace ostravel::linuxplatform {

// Reads netlink(7) messages. A complete message may still be too short for its type; nothing beyond
// its end is read.

// The size of the complete messages at the beginning of what was received; 0 after an error. libmnl
// takes a length above the range of int for a negative one, which fits everywhere.
std::size_t completeSize(const char* bytes, ssize_t received);

// The fixed part at the beginning of a message; null if the message is too short.
template <typename Part>
const Part* fixedPart(const nlmsghdr& message) {
  return ::mnl_nlmsg_get_payload_len(&message) < sizeof(Part)
             ? nullptr
             : static_cast<const Part*>(::mnl_nlmsg_get_payload(&message));
}

// The first attribute of a type after the fixed part, or in a nest of attributes; null if there is
// none, or no nest (null).
const nlattr* attributeOf(const nlmsghdr& message, std::size_t fixedSize, std::uint16_t type);
const nlattr* attributeIn(const nlattr* nest, std::uint16_t type);

// The text of an attribute, up to a zero; empty if there is no attribute (null).
std::optional<std::string> textOf(const nlattr* attribute);

// The value of an attribute; empty if there is no attribute (null), or if it is too short.
template <typename Value>
std::optional<Value> valueOf(const nlattr* attribute) {
  if (attribute == nullptr || ::mnl_attr_get_payload_len(attribute) < sizeof(Value)) {
    return std::nullopt;
  }
  Value value;
  std::memcpy(&value, ::mnl_attr_get_payload(attribute), sizeof value);
  return value;
}

// The same for a number in network byte order.
std::optional<std::uint32_t> networkNumberOf(const nlattr* attribute);

// The result of a request: 0 or an errno. EPROTO if the message does not contain one.
int resultOf(const nlmsghdr& message);

}  // namespace ostravel::linuxplatform
