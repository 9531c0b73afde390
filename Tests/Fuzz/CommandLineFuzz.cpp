// The arguments of ostravel-extension: any words.

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Extension/main/CommandLine.h"
#include "Tests/Fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::ostringstream ignored;
  static const bool isQuiet = [] {
    std::cout.rdbuf(ignored.rdbuf());
    std::cerr.rdbuf(ignored.rdbuf());
    std::cout.setstate(std::ios::failbit);
    std::cerr.setstate(std::ios::failbit);
    return true;
  }();
  std::vector<std::string> words{"ostravel-extension"};
  std::string_view text(reinterpret_cast<const char*>(data), size);
  constexpr std::size_t kMostWords = 32;
  while (!text.empty() && words.size() < kMostWords) {
    const auto end = std::min(text.size(), text.find_first_of(std::string_view("\n\0", 2)));
    words.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(text.size(), end + 1));
  }
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  const auto parsed =
      ostravel::CommandLine::parse(static_cast<int>(words.size()), arguments.data());
  ostravel::fuzz::require(isQuiet && (parsed.options || parsed.exitStatus >= 0),
                          "there are options, or a status to end with");
  return 0;
}
