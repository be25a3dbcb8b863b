// The state of a Host and how the operations use it. Private to the stand-in.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "standin/Engine.h"
#include "standin/Host.h"
#include "standin/KeyValueList.h"

// The head of an offset list. In the same block, `count` slot descriptions follow it.
struct sonalith_moduleOffsetList {
  std::uint64_t count;
};

namespace standin {

// The memory that modules have been given. Guard bytes follow each block. A released block is
// overwritten and kept for a while, so that its address is not reused soon and late writes to it
// are noticed. The Host's lock protects all of it.
class Memory {
 public:
  enum class Kind { Plain, OffsetList };

  struct Block {
    std::uint64_t number;
    std::size_t size;
    Kind kind;
    std::unique_ptr<std::byte[]> bytes;
    bool damaged = false;

    std::string name() const;
  };

  // Adds what it finds to `violations`, which must outlive this object. A lean memory has no guards
  // and keeps no released block.
  Memory(std::vector<std::string>& violations, bool lean);

  // A new zero-filled block.
  const Block& allocate(Kind kind, std::size_t size);
  // The block in use at an address. If there is none, reports a violation by `operation` and
  // returns null.
  const Block* find(const char* operation, const void* address);
  void release(const Block& block);

  // Checks guards and released blocks for writes.
  void inspect();

  std::size_t count() const { return live_.size(); }
  std::size_t bytes() const { return bytes_; }
  bool holds(const void* address, Kind kind) const;

 private:
  void inspectGuard(Block& block);
  void inspectReleased(Block& block);
  void retire(Block block);

  std::vector<std::string>& violations_;
  const std::size_t guardSize_;
  const std::size_t releasedBytesKept_;
  std::map<const void*, Block> live_;
  std::deque<Block> released_;
  std::size_t bytes_ = 0;
  std::size_t releasedBytes_ = 0;
  std::uint64_t lastNumber_ = 0;
};

struct Host::State {
  explicit State(const Choices& chosen)
      : lean(chosen.isLean),
        timed(chosen.isLean && chosen.timesOperations),
        choices(chosen),
        memory(violations, chosen.isLean) {}

  const bool lean;
  const bool timed;
  std::atomic<std::int64_t> nanosecondsInOperations{0};

  // Protects everything but the sink. Never held while code of a module, a test or a tool runs.
  std::mutex mutex;
  std::condition_variable called;
  std::uint64_t callsEnded = 0;

  Choices choices;
  std::vector<LogLine> log;
  std::vector<std::string> journal;
  std::vector<std::string> violations;
  Memory memory;
  std::map<const KeyValueList*, std::unique_ptr<KeyValueList>> keyValueLists;
  std::size_t callbacks = 0;

  std::map<Operation, std::uint64_t> callsBegun;
  std::map<std::pair<Operation, std::uint64_t>, std::string> faults;
  std::map<Operation, std::function<void()>> hooks;

  // Locked before `mutex`, so that the sink gets lines in the order of the log.
  std::mutex sinkMutex;
  std::function<void(const LogLine&)> sink;
};

// One call of an operation, from beginning to end. The constructor runs the hook and throws the
// Fault that is planned for this call; the destructor wakes Host::waitUntil. Each member function
// does the work of one operation of sonalith.h, and an object serves one of them.
class Call {
 public:
  explicit Call(Operation operation);
  ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // Returns `all`: whether all required pointers were passed. If not, reports a violation.
  bool given(bool all);

  bool isHeard() const;  // whether anyone receives log lines
  void log(const LogLine& line);

  void* allocate(std::uint64_t count, std::uint64_t size);
  void release(void* memory);
  void copyText(char* destination, const char* source, std::uint64_t size);

  sonalith_moduleOffsetList* newOffsets(const void* argument);
  void addOffset(sonalith_moduleOffsetList** list, const sonalith_moduleOffset* slot);

  KeyValueList* newKeyValueList();
  void destroyKeyValueList(KeyValueList* list);
  bool isEmpty(const KeyValueList* list);
  bool getText(const KeyValueList* list, const char* key, const char** value);
  void forEach(const KeyValueList* list, sonalith_keyValueItemCallback callback, void* user);
  // Whether an item with this key may be added.
  bool mayAdd(const KeyValueList* list, const char* key);

  void* addCallback(Engine* engine, sonalith_engineChangesCallback callback, void* user);
  void removeCallback(Engine* engine, void* handle);

 private:
  bool acceptable(const sonalith_moduleOffset& slot);
  void violation(const std::string& text);
  // Adds the result of `makeEntry` to the journal. The caller holds the lock.
  template <class MakeEntry>
  void record(MakeEntry makeEntry);

  const Operation operation_;
  Host::State& state_;
  Choices choices_;
  std::chrono::steady_clock::time_point begin_;  // if operations are timed
};

}  // namespace standin
