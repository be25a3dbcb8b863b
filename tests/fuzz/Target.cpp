#include "tests/fuzz/Target.h"

#include <cstdio>
#include <cstdlib>

namespace fuzz {
namespace {

// By then the corpus has been tried, and some thousand of what was made of it.
constexpr std::uint64_t longRun = 5000;

struct Tally : Counts {
  ~Tally() {
    const auto number = [](std::uint64_t count) { return static_cast<unsigned long long>(count); };
    std::fprintf(stderr, "accepted %llu, refused %llu, passed over %llu\n", number(accepted),
                 number(refused), number(passedOver));
    if (haveBoth() || accepted + refused + passedOver < longRun) return;
    std::fprintf(stderr, "not both accepted and refused: mend the corpus\n");
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
    case Result::PassedOver:
      ++tally().passedOver;
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
