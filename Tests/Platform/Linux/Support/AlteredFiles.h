#pragma once

#include <functional>
#include <optional>
#include <string>

namespace ostravel::testing {

// What a program finds when it opens a file and reads it.
struct FileAnswer {
  std::string bytes = {};
  // Of open(2); 0 if it succeeds.
  int openError = 0;
  // Reading fails with EIO.
  bool isUnreadable = false;
};

// As long as it exists, this process finds what the function says in the files that it opens,
// whatever they contain. The function may be called by any thread; without a result the file is
// opened as it is.
//
// Programs that link this file call its open and fopen64, which file streams use, instead of the C
// library's. There is at most one object.
class AlteredFiles {
 public:
  using Alter = std::function<std::optional<FileAnswer>(const std::string& path)>;

  explicit AlteredFiles(Alter alter);
  AlteredFiles(const AlteredFiles&) = delete;
  AlteredFiles& operator=(const AlteredFiles&) = delete;
  ~AlteredFiles();
};

}  // namespace ostravel::testing
