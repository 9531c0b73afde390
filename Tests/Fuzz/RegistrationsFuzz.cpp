// A file of application registrations with any content, and any executable looked for in it.

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "Platform/Linux/Identity/ApplicationRegistrations.h"
#include "Tests/Fuzz/FuzzInput.h"
#include "Tests/Support/TemporaryFolder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using ostravel::fuzz::require;
  using ostravel::linuxplatform::ApplicationRegistrations;
  using ostravel::linuxplatform::SystemUsers;

  // Registrations are trusted only in a folder owned by root.
  static const ostravel::testing::TemporaryFolder folder;
  static const SystemUsers users = SystemUsers::read();
  static const int file =
      open(folder.path("registrations.json").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  require(file >= 0 && ftruncate(file, 0) == 0 &&
              pwrite(file, data, size, 0) == static_cast<ssize_t>(size),
          "the file can be written");
  std::size_t warnings = 0;
  const ApplicationRegistrations registrations(
      folder.path(), [&warnings](const std::string&) { ++warnings; }, users);
  require(registrations.isComplete() == (warnings == 0), "what is ignored is reported");
  require(warnings <= 1, "a file is reported once");
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto identifier = registrations.identifierOf(text.substr(0, text.find('"', 3)), {0});
  require(!identifier || !identifier->empty(), "an identifier is not empty");
  return 0;
}
