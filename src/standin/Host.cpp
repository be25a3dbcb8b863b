#include "standin/Host.h"

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <new>

#include "standin/HostState.h"

namespace standin {
namespace {

constexpr std::size_t guardBytes = 64;
constexpr std::byte guardByte{0xA5};
constexpr std::byte releasedByte{0xDD};
constexpr std::size_t releasedBytes = std::size_t{16} << 20;

// The operations carry no handle, so the process needs to know its host.
std::atomic<Host*>& processHost() {
  static std::atomic<Host*> host{nullptr};
  return host;
}

// Reads bytes that the address sanitizer forbids everyone else to touch.
__attribute__((no_sanitize("address"))) bool allAre(const std::byte* bytes, std::size_t size,
                                                    std::byte expected) {
  for (std::size_t i = 0; i < size; ++i) {
    if (bytes[i] != expected) return false;
  }
  return true;
}

}  // namespace

std::string Memory::Block::name() const {
  return "block #" + std::to_string(number) + " of " + std::to_string(size) + " bytes";
}

Memory::Memory(std::vector<std::string>& violations, bool lean)
    : violations_(violations),
      guardSize_(lean ? 0 : guardBytes),
      releasedBytesKept_(lean ? 0 : releasedBytes) {}

const Memory::Block& Memory::allocate(Kind kind, std::size_t size) {
  if (size > PTRDIFF_MAX - guardSize_) throw std::bad_alloc();
  auto bytes = std::make_unique<std::byte[]>(size + guardSize_);
  const std::byte* address = bytes.get();
  std::fill_n(bytes.get() + size, guardSize_, guardByte);
  ASAN_POISON_MEMORY_REGION(address + size, guardSize_);
  bytes_ += size;
  return live_.insert({address, Block{++lastNumber_, size, kind, std::move(bytes)}}).first->second;
}

const Memory::Block* Memory::find(const char* operation, const void* address) {
  if (const auto live = live_.find(address); live != live_.end()) return &live->second;
  const auto released = std::find_if(released_.begin(), released_.end(), [&](const Block& block) {
    return block.bytes.get() == address;
  });
  violations_.push_back(std::string(operation) + ": " +
                        (released == released_.end()
                             ? "not a block that the host allocated"
                             : released->name() + " has already been released"));
  return nullptr;
}

bool Memory::holds(const void* address, Kind kind) const {
  const auto live = live_.find(address);
  return live != live_.end() && live->second.kind == kind;
}

void Memory::release(const Block& block) {
  auto node = live_.extract(block.bytes.get());
  inspectGuard(node.mapped());
  bytes_ -= node.mapped().size;
  retire(std::move(node.mapped()));
}

void Memory::retire(Block block) {
  if (releasedBytesKept_ == 0) return;
  const std::size_t size = block.size + guardSize_;
  ASAN_UNPOISON_MEMORY_REGION(block.bytes.get(), size);
  std::fill_n(block.bytes.get(), size, releasedByte);
  ASAN_POISON_MEMORY_REGION(block.bytes.get(), size);
  block.damaged = false;
  releasedBytes_ += size;
  released_.push_back(std::move(block));
  while (releasedBytes_ > releasedBytesKept_) {
    inspectReleased(released_.front());
    releasedBytes_ -= released_.front().size + guardSize_;
    released_.pop_front();
  }
}

void Memory::inspectGuard(Block& block) {
  if (block.damaged || allAre(block.bytes.get() + block.size, guardSize_, guardByte)) return;
  block.damaged = true;
  violations_.push_back(block.name() + " was written past its end");
}

void Memory::inspectReleased(Block& block) {
  if (block.damaged || allAre(block.bytes.get(), block.size + guardSize_, releasedByte)) return;
  block.damaged = true;
  violations_.push_back(block.name() + " was written after its release");
}

void Memory::inspect() {
  for (auto& [address, block] : live_) inspectGuard(block);
  for (auto& block : released_) inspectReleased(block);
}

Host::Host(Choices choices) : state_(std::make_unique<State>(choices)) {
  Host* none = nullptr;
  if (!processHost().compare_exchange_strong(none, this)) {
    throw std::logic_error("the process already has a host");
  }
}

Host::~Host() {
  processHost() = nullptr;
}

Host& Host::current() {
  Host* host = processHost();
  if (host == nullptr) throw std::logic_error("the process has no host");
  return *host;
}

Choices Host::choices() const {
  const std::lock_guard lock(state_->mutex);
  return state_->choices;
}

void Host::setChoices(const Choices& choices) {
  const std::lock_guard lock(state_->mutex);
  state_->choices = choices;
}

void Host::setLogSink(std::function<void(const LogLine&)> sink) {
  const std::lock_guard lock(state_->sinkMutex);
  state_->sink = std::move(sink);
}

std::vector<LogLine> Host::log() const {
  const std::lock_guard lock(state_->mutex);
  return state_->log;
}

std::vector<std::string> Host::journal() const {
  const std::lock_guard lock(state_->mutex);
  return state_->journal;
}

void Host::clearRecords() {
  const std::lock_guard lock(state_->mutex);
  state_->log.clear();
  state_->journal.clear();
}

Outstanding Host::outstanding() const {
  const std::lock_guard lock(state_->mutex);
  return {state_->memory.count(), state_->memory.bytes(), state_->keyValueLists.size(),
          state_->callbacks};
}

std::vector<sonalith_moduleOffset> Host::slotsOf(const sonalith_moduleOffsetList* list) const {
  const std::lock_guard lock(state_->mutex);
  if (!state_->memory.holds(list, Memory::Kind::OffsetList)) {
    throw std::logic_error("not an offset list that a module holds");
  }
  const auto* slots = reinterpret_cast<const sonalith_moduleOffset*>(list + 1);
  return {slots, slots + list->count};
}

std::vector<std::string> Host::violations() const {
  const std::lock_guard lock(state_->mutex);
  state_->memory.inspect();
  return state_->violations;
}

void Host::failCall(Operation operation, int nth, std::string text) {
  if (nth < 1) throw std::invalid_argument("calls are counted from 1");
  const std::lock_guard lock(state_->mutex);
  const std::uint64_t call = state_->callsBegun[operation] + static_cast<std::uint64_t>(nth);
  state_->faults[{operation, call}] = std::move(text);
}

std::chrono::nanoseconds Host::timeInOperations() const {
  return std::chrono::nanoseconds(state_->nanosecondsInOperations);
}

void Host::setHook(Operation operation, std::function<void()> hook) {
  const std::lock_guard lock(state_->mutex);
  if (hook) {
    state_->hooks[operation] = std::move(hook);
  } else {
    state_->hooks.erase(operation);
  }
}

bool Host::waitUntil(const std::function<bool()>& condition, std::chrono::seconds limit) const {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::unique_lock lock(state_->mutex);
  for (bool inTime = true; inTime;) {
    const std::uint64_t seen = state_->callsEnded;
    lock.unlock();
    if (condition()) return true;
    lock.lock();
    inTime = state_->called.wait_until(lock, deadline, [&] { return state_->callsEnded != seen; });
  }
  lock.unlock();
  return condition();
}

}  // namespace standin
