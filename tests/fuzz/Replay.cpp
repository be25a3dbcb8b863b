// Tries each file of a folder once, without libFuzzer: `fuzz_..._replay FOLDER`. Fails unless some
// files are accepted and some refused, or if a file is not a usable input.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/Target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesIn(const fs::path& folder) {
  std::vector<fs::path> files(fs::directory_iterator(folder), fs::directory_iterator{});
  std::sort(files.begin(), files.end());
  return files;
}

// Prints the name first, so that it is known if the input crashes.
void replay(const fs::path& path) {
  std::fprintf(stderr, "%s\n", path.filename().c_str());
  std::ifstream file(path, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(file), {});
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  for (const fs::path& path : filesIn(argv[1])) replay(path);
  if (fuzz::counts().haveBoth() && fuzz::counts().skipped == 0) return 0;
  std::fprintf(stderr, "the corpus must contain accepted and refused inputs, and no others\n");
  return 1;
}
