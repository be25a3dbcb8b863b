// A stand-in for the sonalith host: it provides every operation of sonalith.h, so that a module
// runs without the engine. Tests and tools use this one; there is no second fake.
//
// A program that links the library `standin` exports the operations to every module that it loads.
// Since they carry no handle, they work on the one Host that exists in the process: make it before
// a module is started, and let it outlive all of them.
//
// Threads: every operation and every member may be called from any thread, but for the constructor
// and the destructor, which run alone.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/sonalith.h"

namespace standin {

// What the operations leave to the host. Modules must be right with any of these.
struct Choices {
  // Whether sonalith_strncpy ends a full buffer with a NUL.
  bool strncpyTerminates = true;
  // Whether an iteration ends when its callback returns 1.
  bool iterationStopsAtOne = false;
  // Whether sonalith_keyValueListGetS sets its pointer to null when it does not find the key.
  bool missedTextIsNull = false;
  // Whether registering a change callback gives null.
  bool registrationFails = false;
  // Changes that are delivered while the callback is being registered; null for none. Borrowed.
  sonalith_keyValueList* changesDuringRegistration = nullptr;
  // Whether log lines and the journal are kept. A host that runs for long keeps neither.
  bool keepRecords = true;
  // Whether operations do the least that they can, for measurements of what a module costs: no
  // guards, no faults, no hooks, nobody woken in waitUntil, no records. Read when the Host is made.
  bool isLean = false;
};

// The operations, as far as they can be made to fail or are told of in the journal.
enum class Operation {
  Log,
  Calloc,
  Free,
  Strncpy,
  CreateModuleOffset,
  AddModuleOffset,
  KeyValueListNew,
  KeyValueListDestroy,
  KeyValueListIsEmpty,
  KeyValueListGetS,
  KeyValueListForEach,
  KeyValueListAdd,
  AddCallback,
  RmCallback,
};

// What an operation throws when it was made to fail: its what() is the text given to failCall.
struct Fault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// One line of a module's log.
struct LogLine {
  std::chrono::system_clock::time_point time;
  int level;
  std::string file;  // path of the source that logged
  int line;
  int one;  // the fourth argument of sonalith_log
  std::string format;
  std::vector<std::string> arguments;  // each as it appears in the text
  std::string text;
};

// Memory and lists that modules have been given and have not returned.
struct Outstanding {
  std::size_t blocks = 0;  // sonalith_calloc and offset lists
  std::size_t bytes = 0;
  std::size_t keyValueLists = 0;
  std::size_t callbacks = 0;

  bool operator==(const Outstanding&) const = default;
};

class Host {
 public:
  // Becomes the process's host. Throws std::logic_error if there is one already.
  explicit Host(Choices choices = {});
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // The process's host. Throws std::logic_error if there is none.
  static Host& current();

  // May be changed at any time; each operation reads it once when it begins.
  Choices choices() const;
  void setChoices(const Choices& choices);

  // Called for each line, on the thread that logs, one at a time; an empty one ends that. When this
  // returns, the earlier sink is not running. A sink must neither log nor set a sink.
  void setLogSink(std::function<void(const LogLine&)> sink);

  // All lines so far, if records are kept.
  std::vector<LogLine> log() const;

  // What the module did, a line each, in order, if records are kept. Memory blocks have numbers
  // that rise from 1 and are not used again:
  //   log 1 <text>
  //   calloc 3x100 #1
  //   free #1
  //   createModuleOffset #2
  //   addModuleOffset #2>#3 <slot name>      the list moved from #2 to #3
  //   addCallback                            also when it fails by choice
  //   rmCallback                             when no call of the callback is running any more
  // What was refused, by a planned fault or as a violation, is not told here.
  std::vector<std::string> journal() const;
  void clearRecords();  // forgets log lines and journal, not memory

  // What modules hold now.
  Outstanding outstanding() const;

  // The slots of a list, in the order in which they were added. Throws std::logic_error if the list
  // is not one that a module holds now; so a list that was kept after it had moved is noticed.
  std::vector<sonalith_moduleOffset> slotsOf(const sonalith_moduleOffsetList* list) const;

  // Breaches of the contract seen so far, a sentence each: a double or foreign release, a write
  // behind the end of a block or into one that was released (looked for at its release and here), a
  // list that had moved, a foreign or twice destroyed list, a slot description with reserved bytes
  // or a size that may not be, null where none may be, a callback removed twice. No breach is
  // carried out. Under the address sanitizer a touch of such bytes, be it only by reading, ends the
  // program with the sanitizer's report instead.
  std::vector<std::string> violations() const;

  // Makes the nth call of `operation` from now on (1: the next one) throw Fault(text) instead of
  // doing anything. Throws std::invalid_argument if nth is less than 1.
  void failCall(Operation operation, int nth = 1, std::string text = "planned fault");

  // Called at the begin of each call of `operation`, on its thread, before anything is done; an
  // empty one ends that. It may block, and so hold the caller where it is. It must not call the
  // operation.
  void setHook(Operation operation, std::function<void()> hook);

  // Blocks until `condition` holds; asks again whenever an operation has been called. False if
  // `limit` has passed: a bound that keeps a broken run from hanging, generous by intent.
  bool waitUntil(const std::function<bool()>& condition,
                 std::chrono::seconds limit = std::chrono::seconds(60)) const;

 private:
  friend class Call;
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace standin
