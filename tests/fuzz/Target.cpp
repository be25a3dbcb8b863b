#include "tests/fuzz/Target.h"

#include <cstdio>
#include <cstdlib>

namespace fuzz {
namespace {

// Long enough for the corpus and some thousand mutations of it.
constexpr std::uint64_t longRun = 5000;

struct Tally : Counts {
  ~Tally() {
    const auto number = [](std::uint64_t count) { return static_cast<unsigned long long>(count); };
    std::fprintf(stderr, "accepted %llu, refused %llu, skipped %llu\n", number(accepted),
                 number(refused), number(skipped));
    if (haveBoth() || accepted + refused + skipped < longRun) return;
    std::fprintf(stderr, "not both accepted and refused: correct the corpus\n");
    std::_Exit(1);
  }
};

Tally& tally() {
  static Tally instance;
  return instance;
}

void count(Result result) {
  switch (result) {
    case Result::Accepted:
      ++tally().accepted;
      break;
    case Result::Refused:
      ++tally().refused;
      break;
    case Result::Skipped:
      ++tally().skipped;
      break;
  }
}

}  // namespace

const Counts& counts() {
  return tally();
}

void require(bool promise, std::string_view text) {
  if (promise) return;
  std::fprintf(stderr, "broken: %.*s\n", static_cast<int>(text.size()), text.data());
  std::abort();
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::count(fuzz::tryInput({reinterpret_cast<const char*>(data), size}));
  return 0;
}
