#include "Platform/Linux/Identity/PrintableIdentifier.h"

namespace ostravel::linuxplatform {

namespace {

bool isHexadecimalDigit(char character) {
  return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'F') ||
         (character >= 'a' && character <= 'f');
}

bool isEncoded(std::string_view bytes, std::size_t index) {
  const char byte = bytes[index];
  if (byte == ' ') {
    return index == 0 || index + 1 == bytes.size();
  }
  if (byte == '%') {
    return index + 2 < bytes.size() && isHexadecimalDigit(bytes[index + 1]) &&
           isHexadecimalDigit(bytes[index + 2]);
  }
  return byte < ' ' || byte > '~';
}

}  // namespace

std::string printableIdentifier(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (std::size_t i = 0; i < bytes.size() && text.size() <= kMaximumIdentifierSize; ++i) {
    if (!isEncoded(bytes, i)) {
      text += bytes[i];
      continue;
    }
    const auto byte = static_cast<unsigned char>(bytes[i]);
    text += '%';
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 0xfU];
  }
  return text.size() <= kMaximumIdentifierSize ? text : std::string();
}

}  // namespace ostravel::linuxplatform
