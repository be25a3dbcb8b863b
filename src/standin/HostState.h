// What a Host keeps, and how the operations reach it. Private to the stand-in.
#pragma once

#include <condition_variable>
#include <cstddef>
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

// The head of an offset list. Its block holds `count` slot descriptions behind it.
struct sonalith_moduleOffsetList {
  std::uint64_t count;
};

namespace standin {

// Memory that modules have been given. Each block has guard bytes behind its end. A released block
// is overwritten and kept for a while, so that its address is not used again soon and that late
// touches are noticed. Guarded by the Host's lock.
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

  // Breaches are added to `violations`, which is borrowed for the object's life. A lean memory has
  // no guards and keeps no released block.
  Memory(std::vector<std::string>& violations, bool lean);

  // A new zero-filled block.
  const Block& allocate(Kind kind, std::size_t size);
  // The block in use at an address; null, with a violation told of `operation`, if there is none.
  const Block* find(const char* operation, const void* address);
  void release(const Block& block);

  // Looks for writes to where nothing may be written.
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
      : lean(chosen.isLean), choices(chosen), memory(violations, chosen.isLean) {}

  const bool lean;

  // Guards everything but the sink. Not held while anything of a module, a test or a tool runs.
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

  // Taken before `mutex`, so that the sink gets lines in the order of the log.
  std::mutex sinkMutex;
  std::function<void(const LogLine&)> sink;
};

// One call of an operation, from its begin to its end. The constructor throws the Fault that was
// planned for this call; the destructor wakes those who wait for calls. Members are what the
// operations of sonalith.h do, and one object serves one of them.
class Call {
 public:
  explicit Call(Operation operation);
  ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // Returns its argument: whether all pointers were given that must be. If not, it is a violation.
  bool given(bool all);

  bool isHeard() const;  // whether a line of the log gets anywhere
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
  // Whether an item of that key may be added.
  bool mayAdd(const KeyValueList* list, const char* key);

  void* addCallback(Engine* engine, sonalith_engineChangesCallback callback, void* user);
  void removeCallback(Engine* engine, void* handle);

 private:
  bool acceptable(const sonalith_moduleOffset& slot);
  void violation(const std::string& text);
  // Adds what `makeEntry` returns to the journal; the lock is held.
  template <class MakeEntry>
  void tell(MakeEntry makeEntry);

  const Operation operation_;
  Host::State& state_;
  Choices choices_;
};

}  // namespace standin
