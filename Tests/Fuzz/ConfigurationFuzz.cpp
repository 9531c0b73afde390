// The provider configuration file with any content.

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "Extension/main/ConfigurationFile.h"
#include "Tests/Fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using ostravel::fuzz::require;

  static const int file = memfd_create("configuration", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size),
          "the file can be written");
  const auto read = ostravel::linuxplatform::readConfigurationFile(path);
  require(read || read.error().localizedDescription.find(path) != std::string::npos,
          "an error names the file");
  return 0;
}
