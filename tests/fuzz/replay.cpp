// Runs a target over the files of its corpus, and over each of them cut short at every byte.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "tests/fuzz/Target.h"

namespace {

std::vector<std::uint8_t> Contents(std::filesystem::path const& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

int main(int count, char** arguments) {
  std::size_t runs = 0;
  for (int i = 1; i < count; ++i) {
    for (auto const& entry : std::filesystem::directory_iterator(arguments[i])) {
      auto const whole = Contents(entry.path());
      for (std::size_t length = 0; length <= whole.size(); ++length, ++runs) {
        std::vector<std::uint8_t> const part(whole.begin(),
                                             whole.begin() + static_cast<std::ptrdiff_t>(length));
        LLVMFuzzerTestOneInput(part.data(), part.size());
      }
    }
  }
  std::cerr << runs << " inputs" << std::endl;
  return runs == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
