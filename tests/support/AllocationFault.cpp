#include "tests/support/AllocationFault.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <new>

// ---- The underlying allocator -------------------------------------------------------------------

#ifdef GATEWAY_ALLOCATOR_OF_SANITIZER
#define GATEWAY_UNDERLYING(name) __interceptor_##name
#else
#define GATEWAY_UNDERLYING(name) __libc_##name
#endif

extern "C" {
void* GATEWAY_UNDERLYING(malloc)(std::size_t size);
void* GATEWAY_UNDERLYING(calloc)(std::size_t count, std::size_t size);
void* GATEWAY_UNDERLYING(realloc)(void* memory, std::size_t size);
void GATEWAY_UNDERLYING(free)(void* memory);
}

struct AllocationFault::Plan {
  int nth;
  Lasting lasting;
  Throws what;
  bool active = true;
  std::size_t failures = 0;
  std::vector<Allocation> requests;
};

namespace {

// Set while this file's own code runs on this thread, so that its requests don't count.
thread_local bool isBusy = false;
// The plan that covers this thread, or null.
thread_local AllocationFault::Plan* threadPlan = nullptr;

class Busy {
 public:
  Busy() { isBusy = true; }
  ~Busy() { isBusy = false; }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;
};

// Protects plans and blocks with their contents. Lock it only while isBusy is set.
std::mutex& mutex() {
  static std::mutex instance;
  return instance;
}

std::atomic<bool> blocksAreCounted{false};

struct Blocks {
  std::map<const void*, Callers> held;
  std::condition_variable changed;
};

// Never destroyed: memory is released until the very end of the process.
Blocks& blocks() {
  static Blocks& instance = *new Blocks;
  return instance;
}

bool mattersHere() {
  return !isBusy && (threadPlan != nullptr || blocksAreCounted);
}

// The decision about one request.
struct Verdict {
  bool own = false;
  bool fails = false;
  AllocationFault::Throws what = AllocationFault::Throws::BadAlloc;
  Callers callers;
};

Verdict judge(const void* returnAddress, bool throws) {
  Verdict verdict;
  if (!mattersHere()) return verdict;
  const Busy busy;
  verdict.own = isOwnRequest(returnAddress, verdict.callers);
  if (!verdict.own || threadPlan == nullptr) return verdict;
  const std::lock_guard lock(mutex());
  AllocationFault::Plan& plan = *threadPlan;
  if (!plan.active) return verdict;
  const auto number = static_cast<int>(plan.requests.size()) + 1;
  const bool forGood = plan.lasting == AllocationFault::Lasting::ForGood;
  verdict.fails = forGood ? number >= plan.nth : number == plan.nth;
  verdict.what = plan.what;
  if (verdict.fails) ++plan.failures;
  plan.requests.push_back({verdict.fails, throws, verdict.callers});
  return verdict;
}

void noteTaken(const Verdict& verdict, const void* memory) {
  if (!verdict.own || memory == nullptr || !blocksAreCounted) return;
  const Busy busy;
  const std::lock_guard lock(mutex());
  blocks().held[memory] = verdict.callers;
}

void noteGiven(const void* memory) {
  if (memory == nullptr || isBusy || !blocksAreCounted) return;
  const Busy busy;
  const std::lock_guard lock(mutex());
  if (blocks().held.erase(memory) != 0) blocks().changed.notify_all();
}

void* allocate(std::size_t size, const void* returnAddress) {
  const Verdict verdict = judge(returnAddress, true);
  if (verdict.fails && verdict.what == AllocationFault::Throws::Int) throw 42;
  void* const memory = verdict.fails ? nullptr : GATEWAY_UNDERLYING(malloc)(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  noteTaken(verdict, memory);
  return memory;
}

void release(void* memory) {
  noteGiven(memory);
  GATEWAY_UNDERLYING(free)(memory);
}

// `take` passes the request on to the underlying allocator.
template <class Take>
void* allocateQuietly(const void* returnAddress, Take take) {
  const Verdict verdict = judge(returnAddress, false);
  void* const memory = verdict.fails ? nullptr : take();
  noteTaken(verdict, memory);
  return memory;
}

// Never deleted, since a thread may look at its plan at any time.
AllocationFault::Plan& newPlan(int nth, AllocationFault::Lasting lasting,
                               AllocationFault::Throws what) {
  const Busy busy;
  static auto& plans = *new std::vector<std::unique_ptr<AllocationFault::Plan>>;
  plans.push_back(std::make_unique<AllocationFault::Plan>());
  plans.back()->nth = nth;
  plans.back()->lasting = lasting;
  plans.back()->what = what;
  return *plans.back();
}

}  // namespace

AllocationFault::AllocationFault(int nth, Lasting lasting, Covers covers, Throws what)
    : plan_(newPlan(nth, lasting, what)) {
  if (covers == Covers::ThisThread) coverThisThread();
}

AllocationFault::~AllocationFault() {
  end();
  if (threadPlan == &plan_) threadPlan = nullptr;
}

void AllocationFault::coverThisThread() {
  threadPlan = &plan_;
}

void AllocationFault::end() {
  const Busy busy;
  const std::lock_guard lock(mutex());
  plan_.active = false;
}

std::vector<AllocationFault::Allocation> AllocationFault::allocations() const {
  const Busy busy;
  const std::lock_guard lock(mutex());
  return plan_.requests;
}

std::size_t AllocationFault::requestCount() const {
  const Busy busy;
  const std::lock_guard lock(mutex());
  return plan_.requests.size();
}

std::size_t AllocationFault::failureCount() const {
  const Busy busy;
  const std::lock_guard lock(mutex());
  return plan_.failures;
}

OwnBlocks::OwnBlocks() {
  blocksAreCounted = true;
}

OwnBlocks::~OwnBlocks() {
  blocksAreCounted = false;
  const Busy busy;
  const std::lock_guard lock(mutex());
  blocks().held.clear();
}

std::size_t OwnBlocks::count() const {
  const Busy busy;
  const std::lock_guard lock(mutex());
  return blocks().held.size();
}

std::string OwnBlocks::text() const {
  const Busy busy;
  const std::lock_guard lock(mutex());
  std::string text;
  for (const auto& [memory, callers] : blocks().held) text += "a block of\n" + callers.text();
  return text;
}

bool OwnBlocks::waitFor(std::size_t count) const {
  constexpr std::chrono::seconds patience{60};
  const Busy busy;
  std::unique_lock lock(mutex());
  return blocks().changed.wait_for(lock, patience, [&] { return blocks().held.size() == count; });
}

// ---- Replacements for the libraries' functions --------------------------------------------------

void* operator new(std::size_t size) {
  return allocate(size, __builtin_return_address(0));
}
void* operator new[](std::size_t size) {
  return allocate(size, __builtin_return_address(0));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocateQuietly(__builtin_return_address(0),
                         [=] { return GATEWAY_UNDERLYING(malloc)(size); });
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocateQuietly(__builtin_return_address(0),
                         [=] { return GATEWAY_UNDERLYING(malloc)(size); });
}
void operator delete(void* memory) noexcept {
  release(memory);
}
void operator delete[](void* memory) noexcept {
  release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  release(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  release(memory);
}

extern "C" {

void* malloc(std::size_t size) noexcept {
  return allocateQuietly(__builtin_return_address(0),
                         [=] { return GATEWAY_UNDERLYING(malloc)(size); });
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  return allocateQuietly(__builtin_return_address(0),
                         [=] { return GATEWAY_UNDERLYING(calloc)(count, size); });
}
void* realloc(void* memory, std::size_t size) noexcept {
  noteGiven(memory);
  return allocateQuietly(__builtin_return_address(0),
                         [=] { return GATEWAY_UNDERLYING(realloc)(memory, size); });
}
void free(void* memory) noexcept {
  release(memory);
}

}  // extern "C"
