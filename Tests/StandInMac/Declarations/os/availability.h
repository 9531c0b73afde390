#pragma once

// Since which macOS something exists, and since which it is deprecated, in the words of the
// compiler: a target below warns about what is used unguarded, as with the headers of a Mac.

#define OV_MACOS(version) __attribute__((availability(macos, introduced = version)))
#define OV_MACOS_DEPRECATED(version, last, text) \
  __attribute__((availability(macos, introduced = version, deprecated = last, message = text)))
