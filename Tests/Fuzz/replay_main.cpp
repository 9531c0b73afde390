// Runs a fuzz target over every file of its corpus, and then for some seconds over variations of
// them, where the compiler has no fuzzer. Without coverage this finds less than a fuzzer.
//
// An input that breaks something is printed in hexadecimal, as xxd -r -p reads it.
//
// Usage: PROGRAM FOLDER SECONDS

#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Simulation/Schedule/SeededRandom.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using ostravel::simulation::SeededRandom;

// The input under test, for the handler.
std::string_view current;

extern "C" void printCurrent(int signal) {
  std::signal(signal, SIG_DFL);
  constexpr char kDigits[] = "0123456789abcdef";
  for (const char byte : current) {
    const auto value = static_cast<unsigned char>(byte);
    const std::array<char, 2> digits{kDigits[value >> 4U], kDigits[value & 15U]};
    static_cast<void>(::write(STDERR_FILENO, digits.data(), digits.size()));
  }
  static_cast<void>(::write(STDERR_FILENO, "\n", 1));
  ::raise(signal);
}

void run(const std::string& input) {
  current = input;
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

std::string altered(const std::vector<std::string>& corpus, SeededRandom& random) {
  std::string input = corpus[random.below(corpus.size())];
  for (auto changes = 1 + random.below(4); changes > 0; --changes) {
    const auto at = random.below(input.size() + 1);
    switch (random.below(4)) {
      case 0:
        input.insert(at, 1, static_cast<char>(random.below(256)));
        break;
      case 1:
        input.erase(at, 1 + random.below(8));
        break;
      case 2: {
        const std::string& other = corpus[random.below(corpus.size())];
        input.insert(at, other, random.below(other.size() + 1), random.below(32));
        break;
      }
      default:
        if (at < input.size()) {
          input[at] = static_cast<char>(random.below(256));
        }
        break;
    }
  }
  return input;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s FOLDER SECONDS\n", argv[0]);
    return 2;
  }
  for (const int signal : {SIGABRT, SIGSEGV}) {
    std::signal(signal, printCurrent);
  }
  std::vector<std::string> corpus;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    run(corpus.back());
  }
  if (corpus.empty()) {
    std::fprintf(stderr, "%s is empty\n", argv[1]);
    return 1;
  }
  run("");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(argv[2]));
  SeededRandom random(1, 0);
  std::uint64_t runs = 0;
  while (std::chrono::steady_clock::now() < end) {
    run(altered(corpus, random));
    ++runs;
  }
  std::printf("%zu files, %llu variations\n", corpus.size(), static_cast<unsigned long long>(runs));
  return 0;
}
