// Reading a file when memory runs out, and the release of memory that reading takes. The program is
// linked so that its calls of malloc, free and operator new reach the functions below.
#include <cstdlib>
#include <new>

#include "tests/module/grpc-gateway/config/config_fixture.h"

namespace {

// The requests to one allocator while a test watches it.
struct Heap {
  bool watched = false;
  int requests = 0;
  int failing = 0;  // number of the request to fail, from 1; 0 for none
  int returned = 0;

  bool grants() { return !watched || ++requests != failing; }
};

Heap& newHeap() {
  static Heap instance;
  return instance;
}

Heap& mallocHeap() {
  static Heap instance;
  return instance;
}

// Fails one request of a heap while it lives.
class FailingRequest {
 public:
  FailingRequest(Heap& heap, int number) : heap_(heap) { heap_ = {true, 0, number, 0}; }
  ~FailingRequest() { heap_ = {}; }
  FailingRequest(const FailingRequest&) = delete;
  FailingRequest& operator=(const FailingRequest&) = delete;

 private:
  Heap& heap_;
};

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real__Znwm(std::size_t size);
void __real_free(void* memory);
void* __wrap_malloc(std::size_t size);
void* __wrap__Znwm(std::size_t size);
void __wrap_free(void* memory);

void* __wrap_malloc(std::size_t size) {
  return mallocHeap().grants() ? __real_malloc(size) : nullptr;
}

void* __wrap__Znwm(std::size_t size) {
  if (!newHeap().grants()) throw std::bad_alloc();
  return __real__Znwm(size);
}

void __wrap_free(void* memory) {
  if (memory != nullptr) ++mallocHeap().returned;
  __real_free(memory);
}
}

namespace gateway {
namespace {

class ConfigAllocation : public ConfigTest {};

// Fails the first request to operator new, then only the second, and so on, until there is no such
// request. Returns how many failed; the exception must leave the constructor each time.
int failuresThatLeave(const std::string& path) {
  for (int number = 1;; ++number) {
    const FailingRequest failing(newHeap(), number);
    try {
      const ConfigManager config(path);
      return number - 1;
    } catch (const std::bad_alloc&) {
    }
  }
}

TEST_F(ConfigAllocation, EveryFailureOfOperatorNewThrowsFromTheConstructor) {
  const std::string text(300, 'x');
  write("long.conf", "[Meters]\nTarget=" + text + "\n[MetersString]\nMeter=Key=" + text +
                         " DefaultValue=" + text + "\n");
  // At least one each for the target, the key, the default value and the list.
  EXPECT_GT(failuresThatLeave("long.conf"), 4);
}

TEST_F(ConfigAllocation, AnEntryWithoutMemoryForItsWordsIsLoggedLikeAnOpenQuote) {
  write("main.conf", std::string(targets) +
                         "[MetersInt]\nMeter=Key=a\nMeter=Key=b\n"
                         "[EngineInt]\nParam=Key=c\nParam=Key=d\n");
  const Lines refusal{{4, "error in c_shquote_parse_argv"}, problem(6)};
  const auto readFailing = [this](int number) {
    const FailingRequest failing(mallocHeap(), number);
    return readPath("main.conf");
  };
  // Each entry takes two blocks: the first two requests are for the first entry, and the fifth is
  // for the third.
  for (const int number : {1, 2}) {
    EXPECT_EQ(readFailing(number), unsound({.fastMeterInts = {{.key = "b"}},
                                            .engineInts = {{.key = "c"}, {.key = "d"}}}));
    EXPECT_EQ(log(), refusal);
  }
  EXPECT_EQ(readFailing(5),
            unsound({.fastMeterInts = {{.key = "a"}, {.key = "b"}}, .engineInts = {{.key = "d"}}}));
  EXPECT_EQ(log(), (Lines{{4, "error in c_shquote_parse_argv"}, problem(9)}));
}

TEST_F(ConfigAllocation, TheMemoryOfAnEntrysWordsIsReleased) {
  write("main.conf", std::string(targets) + "[MetersInt]\nMeter=Key=a\nMeter=Unknown=b\nMeter=\n");
  const FailingRequest none(mallocHeap(), 0);
  readPath("main.conf");
  // Each entry takes two blocks, even without words.
  EXPECT_EQ(mallocHeap().requests, 6);
  EXPECT_EQ(mallocHeap().returned, 6);
}

}  // namespace
}  // namespace gateway
