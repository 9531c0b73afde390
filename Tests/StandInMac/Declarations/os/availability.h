#pragma once

// The macOS version that introduced something, and the one that deprecated it, as compiler
// attributes: for an older target the compiler warns about unguarded uses, as with the headers of a
// Mac.

#define OV_MACOS(version) __attribute__((availability(macos, introduced = version)))
#define OV_MACOS_DEPRECATED(version, last, text) \
  __attribute__((availability(macos, introduced = version, deprecated = last, message = text)))
