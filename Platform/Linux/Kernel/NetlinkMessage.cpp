#include "Platform/Linux/Kernel/NetlinkMessage.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>

namespace ostravel::linuxplatform {

namespace {

struct Search {
  const std::uint16_t type;
  const nlattr* found = nullptr;
};

int compareAttribute(const nlattr* attribute, void* search) {
  auto& [type, found] = *static_cast<Search*>(search);
  if (::mnl_attr_get_type(attribute) != type) {
    return MNL_CB_OK;
  }
  found = attribute;
  return MNL_CB_STOP;
}

}  // namespace

std::size_t completeSize(const char* bytes, ssize_t received) {
  const std::size_t size = received < 0 ? 0 : static_cast<std::size_t>(received);
  std::size_t complete = 0;
  while (size - complete >= sizeof(nlmsghdr)) {
    nlmsghdr header;
    std::memcpy(&header, bytes + complete, sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > size - complete) {
      break;
    }
    // The last message need not be padded.
    complete = std::min(size, complete + NLMSG_ALIGN(std::size_t{header.nlmsg_len}));
  }
  return complete;
}

const nlattr* attributeOf(const nlmsghdr& message, std::size_t fixedSize, std::uint16_t type) {
  Search search{type};
  ::mnl_attr_parse(&message, static_cast<unsigned>(fixedSize), &compareAttribute, &search);
  return search.found;
}

const nlattr* attributeIn(const nlattr* nest, std::uint16_t type) {
  Search search{type};
  if (nest != nullptr) {
    ::mnl_attr_parse_nested(nest, &compareAttribute, &search);
  }
  return search.found;
}

std::optional<std::string> textOf(const nlattr* attribute) {
  if (attribute == nullptr) {
    return std::nullopt;
  }
  const auto* const text = static_cast<const char*>(::mnl_attr_get_payload(attribute));
  return std::string(text, ::strnlen(text, ::mnl_attr_get_payload_len(attribute)));
}

std::optional<std::uint32_t> networkNumberOf(const nlattr* attribute) {
  const auto number = valueOf<std::uint32_t>(attribute);
  return number ? std::optional(ntohl(*number)) : std::nullopt;
}

int resultOf(const nlmsghdr& message) {
  const auto* const result =
      message.nlmsg_type == NLMSG_ERROR ? fixedPart<nlmsgerr>(message) : nullptr;
  // Its negative, from the kernel's range (linux/err.h).
  constexpr int kLargestError = 4095;
  const bool isError = result != nullptr && result->error <= 0 && result->error >= -kLargestError;
  return isError ? -result->error : EPROTO;
}

}  // namespace ostravel::linuxplatform
